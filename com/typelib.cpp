#include "com/typelib.h"

#include <array>
#include <string>

namespace elatectwn4::com {

namespace {

constexpr auto String = ValueType::String;
constexpr auto Long = ValueType::Long;
constexpr auto Byte = ValueType::Byte;
constexpr auto Void = ValueType::Void;
constexpr auto Object = ValueType::Object;
constexpr auto Any = ValueType::Variant;
using enum MemberKind;

constexpr ParamInfo In(std::string_view name, ValueType type, std::string_view typeName) {
    return {name, type, typeName, false, false};
}
constexpr ParamInfo InOut(std::string_view name, ValueType type, std::string_view typeName) {
    return {name, type, typeName, true, false};
}
constexpr ParamInfo Opt(std::string_view name, ValueType type, std::string_view typeName) {
    return {name, type, typeName, false, true};
}

// Argument access: the dispatcher has already converted every argument to
// its parameter's type, so these never see another alternative.
std::string& S(std::vector<Variant>& a, std::size_t i) {
    return std::get<std::string>(a[i]);
}
std::int32_t& L(std::vector<Variant>& a, std::size_t i) {
    return std::get<std::int32_t>(a[i]);
}
std::uint8_t& B(std::vector<Variant>& a, std::size_t i) {
    return std::get<std::uint8_t>(a[i]);
}

DispatchResult Ret(std::int32_t value) {
    return {Variant{value}, nullptr};
}
DispatchResult Ret(std::string value) {
    return {Variant{std::move(value)}, nullptr};
}
DispatchResult Nothing() {
    return {};
}

// Parameter lists shared by several members.
constexpr std::array kNoParams = std::array<ParamInfo, 0>{};
constexpr std::array kText{In("Value", String, "String")};
constexpr std::array kLong{In("Value", Long, "Long")};
constexpr std::array kOpen{Opt("Handle", Long, "Long")};
constexpr std::array kSerial{InOut("SerialNumber", String, "String")};
constexpr std::array kEscape{In("sCommand", String, "String"), InOut("sBuffer", String, "String")};
constexpr std::array kResponseText{In("sw1sw2", String, "String"), In("EncoderCommand", String, "String")};
constexpr std::array kBlock{In("BlocNumber", Long, "Long"), In("Key", String, "String"), In("KeyType", Byte, "Byte"),
                            InOut("BlocContents", String, "String")};
constexpr std::array kManufacturer{In("Key", String, "String"), In("KeyType", Byte, "Byte"),
                                   InOut("SerialNumber", Long, "Long"), InOut("CheckSum", Byte, "Byte"),
                                   InOut("ManufacturerInfo", String, "String")};
constexpr std::array kValueBlock{In("BlocNumber", Long, "Long"), In("Key", String, "String"),
                                 In("KeyType", Byte, "Byte"), In("Value", Long, "Long")};
constexpr std::array kBytesInBlock{In("BlocNumber", Long, "Long"), In("Key", String, "String"),
                                   In("KeyType", Byte, "Byte"),    In("FromByte", Byte, "Byte"),
                                   In("ToByte", Byte, "Byte"),     InOut("BlocContents", String, "String")};
constexpr std::array kAccessCondition{In("AccessConditionNumber", Long, "Long"), In("NewValue", String, "String")};
constexpr std::array kWriteTrailer{In("SectorNumber", Long, "Long"),
                                   In("Key", String, "String"),
                                   In("KeyType", Byte, "Byte"),
                                   In("KeyA", String, "String"),
                                   In("KeyB", String, "String"),
                                   In("KeysToUse", Byte, "Byte"),
                                   In("Security0", Long, "SCBS_SecurityLevelEnum"),
                                   In("Security1", Long, "SCBS_SecurityLevelEnum"),
                                   In("Security2", Long, "SCBS_SecurityLevelEnum"),
                                   In("Conditions", Long, "SCSS_SecurityLevelEnum"),
                                   Opt("BX", Any, "Variant")};
constexpr std::array kReadTrailer{In("SectorNumber", Long, "Long"),
                                  In("Key", String, "String"),
                                  In("KeyType", Byte, "Byte"),
                                  InOut("KeysUsed", Byte, "Byte"),
                                  InOut("Security0", Long, "SCBS_SecurityLevelEnum"),
                                  InOut("Security1", Long, "SCBS_SecurityLevelEnum"),
                                  InOut("Security2", Long, "SCBS_SecurityLevelEnum"),
                                  InOut("Conditions", Long, "SCSS_SecurityLevelEnum"),
                                  InOut("BX", Byte, "Byte")};

template <auto Member>
DispatchResult ReadBlockLike(Encoder& e, std::vector<Variant>& a) {
    return Ret((e.*Member)(L(a, 0), S(a, 1), B(a, 2), S(a, 3)));
}
template <auto Member>
DispatchResult ManufacturerLike(Encoder& e, std::vector<Variant>& a) {
    return Ret((e.*Member)(S(a, 0), B(a, 1), L(a, 2), B(a, 3), S(a, 4)));
}
template <auto Member>
DispatchResult ValueBlockLike(Encoder& e, std::vector<Variant>& a) {
    return Ret((e.*Member)(L(a, 0), S(a, 1), B(a, 2), L(a, 3)));
}
template <auto Member>
DispatchResult BytesInBlockLike(Encoder& e, std::vector<Variant>& a) {
    return Ret((e.*Member)(L(a, 0), S(a, 1), B(a, 2), B(a, 3), B(a, 4), S(a, 5)));
}
template <auto Member>
DispatchResult WriteTrailerLike(Encoder& e, std::vector<Variant>& a) {
    return Ret(
        (e.*Member)(L(a, 0), S(a, 1), B(a, 2), S(a, 3), S(a, 4), B(a, 5), L(a, 6), L(a, 7), L(a, 8), L(a, 9), a[10]));
}
template <auto Member>
DispatchResult ReadTrailerLike(Encoder& e, std::vector<Variant>& a) {
    return Ret((e.*Member)(L(a, 0), S(a, 1), B(a, 2), B(a, 3), L(a, 4), L(a, 5), L(a, 6), L(a, 7), B(a, 8)));
}

template <auto Field>
Variant ErrorGet(CError& e, std::vector<Variant>&) {
    return Variant{e.*Field};
}
template <auto Field>
Variant ErrorPut(CError& e, std::vector<Variant>& a) {
    using T = std::remove_reference_t<decltype(e.*Field)>;
    e.*Field = std::get<T>(a[0]);
    return {};
}

constexpr std::string_view kEnc = "_Encoder";
constexpr std::string_view kErr = "_CError";

constexpr MemberInfo M(std::string_view name, std::int32_t id, MemberKind kind, ValueType result,
                       std::string_view resultType, std::span<const ParamInfo> params, std::string_view help) {
    return {kEnc, name, id, kind, result, resultType, params, help};
}

const std::array kRows{
    // ---- properties of the encoder -------------------------------------------------------------
    MemberRow{M("Parameters", 1, PropertyGet, String, "String", kNoParams, "Capabilities and the reader in use"),
              [](Encoder& e, std::vector<Variant>&) { return Ret(e.Parameters()); }},
    MemberRow{M("Parameters", 1, PropertyPut, Void, "", kText, "Names the reader: Device=<reader name>"),
              [](Encoder& e, std::vector<Variant>& a) {
                  e.Parameters(S(a, 0));
                  return Nothing();
              }},
    MemberRow{M("LastError", 2, PropertyGet, Object, "CError", kNoParams, "The record of the last failure"),
              [](Encoder& e, std::vector<Variant>&) {
                  return DispatchResult{{}, &e.LastError()};
              }},
    MemberRow{M("EncoderState", 3, PropertyGet, Long, "sceEncoderState", kNoParams,
                "1 closed, 2 open without a card, 3 ready"),
              [](Encoder& e, std::vector<Variant>&) { return Ret(e.EncoderState()); }},
    MemberRow{M("ReaderType", 4, PropertyGet, String, "String", kNoParams, "Name, vendor, type, version, serial"),
              [](Encoder& e, std::vector<Variant>&) { return Ret(e.ReaderType()); }},
    MemberRow{M("ATRString", 5, PropertyGet, String, "String", kNoParams, "The card's answer to reset"),
              [](Encoder& e, std::vector<Variant>&) { return Ret(e.ATRString()); }},
    MemberRow{M("CardType", 6, PropertyGet, Long, "sceCardTypes", kNoParams, "Card type found from the ATR"),
              [](Encoder& e, std::vector<Variant>&) { return Ret(e.CardType()); }},
    MemberRow{M("SerialNumberLength", 7, PropertyGet, Long, "Long", kNoParams, "Bytes of the card's serial number"),
              [](Encoder& e, std::vector<Variant>&) { return Ret(e.SerialNumberLength()); }},
    // ---- session and identity ------------------------------------------------------------------
    MemberRow{M("GetInformation", 10, Method, String, "String", kNoParams, "The component's identity"),
              [](Encoder& e, std::vector<Variant>&) { return Ret(e.GetInformation()); }},
    MemberRow{M("OpenEncoder", 11, Method, Long, "sceReturnCode", kOpen, "Opens the reader named in Parameters"),
              [](Encoder& e, std::vector<Variant>& a) { return Ret(e.OpenEncoder(L(a, 0))); }},
    MemberRow{M("CloseEncoder", 12, Method, Long, "sceReturnCode", kNoParams, "Closes the reader"),
              [](Encoder& e, std::vector<Variant>&) { return Ret(e.CloseEncoder()); }},
    MemberRow{M("ReOpenEncoder", 13, Method, Void, "", kNoParams, "Opens the reader again"),
              [](Encoder& e, std::vector<Variant>&) {
                  e.ReOpenEncoder();
                  return Nothing();
              }},
    MemberRow{M("ReadSerialNumber", 14, Method, Long, "sceReturnCode", kSerial, "The card's UID"),
              [](Encoder& e, std::vector<Variant>& a) { return Ret(e.ReadSerialNumber(S(a, 0))); }},
    MemberRow{M("Escape", 15, Method, Long, "sceReturnCode", kEscape, "Sends a raw reader command"),
              [](Encoder& e, std::vector<Variant>& a) { return Ret(e.Escape(S(a, 0), S(a, 1))); }},
    MemberRow{M("GetResponseText", 16, Method, String, "String", kResponseText, "Text of a status word"),
              [](Encoder& e, std::vector<Variant>& a) { return Ret(e.GetResponseText(S(a, 0), S(a, 1))); }},
    // ---- MIFARE Classic ------------------------------------------------------------------------
    MemberRow{M("MifareReadDataBloc", 20, Method, Long, "sceReturnCode", kBlock, "Reads a 16-byte block"),
              ReadBlockLike<&Encoder::MifareReadDataBloc>},
    MemberRow{M("MifareReadManufacturerCode", 21, Method, Long, "sceReturnCode", kManufacturer,
                "Reads the manufacturer block 0"),
              ManufacturerLike<&Encoder::MifareReadManufacturerCode>},
    MemberRow{M("MifareWriteDataBloc", 22, Method, Long, "sceReturnCode", kBlock, "Writes a 16-byte block"),
              ReadBlockLike<&Encoder::MifareWriteDataBloc>},
    MemberRow{M("MifareWriteValueBloc", 23, Method, Long, "sceReturnCode", kValueBlock, "Writes a value block"),
              ValueBlockLike<&Encoder::MifareWriteValueBloc>},
    MemberRow{M("MifareWriteBytesInBloc", 24, Method, Long, "sceReturnCode", kBytesInBlock,
                "Replaces bytes FromByte..ToByte of a block"),
              BytesInBlockLike<&Encoder::MifareWriteBytesInBloc>},
    MemberRow{M("MifareSetAccessCondition", 25, Method, Void, "", kAccessCondition,
                "Overrides one built-in access condition"),
              [](Encoder& e, std::vector<Variant>& a) {
                  e.MifareSetAccessCondition(L(a, 0), S(a, 1));
                  return Nothing();
              }},
    MemberRow{M("MifareWriteSectorTrailer", 26, Method, Long, "sceReturnCode", kWriteTrailer,
                "Writes keys and access conditions of a sector"),
              WriteTrailerLike<&Encoder::MifareWriteSectorTrailer>},
    MemberRow{M("MifareReadSectorTrailer", 27, Method, Long, "sceReturnCode", kReadTrailer,
                "Reads the access conditions of a sector"),
              ReadTrailerLike<&Encoder::MifareReadSectorTrailer>},
    MemberRow{M("ReadDataBloc", 30, Method, Long, "sceReturnCode", kBlock, "Same as MifareReadDataBloc"),
              ReadBlockLike<&Encoder::ReadDataBloc>},
    MemberRow{M("ReadManufacturerCode", 31, Method, Long, "sceReturnCode", kManufacturer,
                "Same as MifareReadManufacturerCode"),
              ManufacturerLike<&Encoder::ReadManufacturerCode>},
    MemberRow{M("WriteDataBloc", 32, Method, Long, "sceReturnCode", kBlock, "Same as MifareWriteDataBloc"),
              ReadBlockLike<&Encoder::WriteDataBloc>},
    MemberRow{M("WriteValueBloc", 33, Method, Long, "sceReturnCode", kValueBlock, "Same as MifareWriteValueBloc"),
              ValueBlockLike<&Encoder::WriteValueBloc>},
    MemberRow{M("WriteBytesInBloc", 34, Method, Long, "sceReturnCode", kBytesInBlock, "Same as MifareWriteBytesInBloc"),
              BytesInBlockLike<&Encoder::WriteBytesInBloc>},
    MemberRow{
        M("WriteSectorTrailer", 36, Method, Long, "sceReturnCode", kWriteTrailer, "Same as MifareWriteSectorTrailer"),
        WriteTrailerLike<&Encoder::WriteSectorTrailer>},
    MemberRow{
        M("ReadSectorTrailer", 37, Method, Long, "sceReturnCode", kReadTrailer, "Same as MifareReadSectorTrailer"),
        ReadTrailerLike<&Encoder::ReadSectorTrailer>},
    // ---- the error record ----------------------------------------------------------------------
    MemberRow{{kErr, "Number", 1, PropertyGet, Long, "Long", kNoParams, "Error number (0 = none)"},
              nullptr,
              ErrorGet<&CError::Number>},
    MemberRow{{kErr, "Number", 1, PropertyPut, Void, "", kLong, ""}, nullptr, ErrorPut<&CError::Number>},
    MemberRow{{kErr, "Description", 2, PropertyGet, String, "String", kNoParams, "Text of the error"},
              nullptr,
              ErrorGet<&CError::Description>},
    MemberRow{{kErr, "Description", 2, PropertyPut, Void, "", kText, ""}, nullptr, ErrorPut<&CError::Description>},
    MemberRow{{kErr, "LastDllError", 3, PropertyGet, Long, "Long", kNoParams, "PC/SC code of the failed call"},
              nullptr,
              ErrorGet<&CError::LastDllError>},
    MemberRow{{kErr, "LastDllError", 3, PropertyPut, Void, "", kLong, ""}, nullptr, ErrorPut<&CError::LastDllError>},
    MemberRow{{kErr, "ComFunction", 4, PropertyGet, String, "String", kNoParams, "Operation that failed"},
              nullptr,
              ErrorGet<&CError::ComFunction>},
    MemberRow{{kErr, "ComFunction", 4, PropertyPut, Void, "", kText, ""}, nullptr, ErrorPut<&CError::ComFunction>},
    MemberRow{{kErr, "RdrCommand", 5, PropertyGet, String, "String", kNoParams, "Reader function or command"},
              nullptr,
              ErrorGet<&CError::RdrCommand>},
    MemberRow{{kErr, "RdrCommand", 5, PropertyPut, Void, "", kText, ""}, nullptr, ErrorPut<&CError::RdrCommand>},
    MemberRow{{kErr, "RdrRetCode", 6, PropertyGet, String, "String", kNoParams, "PC/SC text or status word"},
              nullptr,
              ErrorGet<&CError::RdrRetCode>},
    MemberRow{{kErr, "RdrRetCode", 6, PropertyPut, Void, "", kText, ""}, nullptr, ErrorPut<&CError::RdrRetCode>},
};

}  // namespace

std::span<const MemberRow> MemberRows() {
    return kRows;
}

}  // namespace elatectwn4::com
