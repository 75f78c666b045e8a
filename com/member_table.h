// The member table: one row per member of _Encoder and _CError, in
// type-library order. A row names the member, its dispatch id, its
// parameters as hosts know them and a line of help; types, in/out and the
// call come from the member's C++ signature (com/member_row.h). A header so
// that code built from the rows at compile time (the COM server's vtables)
// sees them as constants; everything else reads them through MemberRows().
#pragma once

#include <array>

#include "com/member_row.h"

namespace elatectwn4::com {

namespace member_lists {

// Parameter lists, shared by the members that take the same arguments.
inline constexpr std::array kParametersText{In("Value")};
inline constexpr std::array kOpen{Optional("Handle")};
inline constexpr std::array kSerial{InOut("SerialNumber")};
inline constexpr std::array kEscape{In("sCommand"), InOut("sBuffer")};
inline constexpr std::array kResponseText{In("sw1sw2"), In("EncoderCommand")};
inline constexpr std::array kConfigure{Optional("Language")};
inline constexpr std::array kBlock{In("BlocNumber"), In("Key"), In("KeyType"), InOut("BlocContents")};
inline constexpr std::array kManufacturer{In("Key"), In("KeyType"), InOut("SerialNumber"), InOut("CheckSum"),
                                          InOut("ManufacturerInfo")};
inline constexpr std::array kValueBlock{In("BlocNumber"), In("Key"), In("KeyType"), In("Value")};
inline constexpr std::array kBytesInBlock{In("BlocNumber"), In("Key"),    In("KeyType"),
                                          In("FromByte"),   In("ToByte"), InOut("BlocContents")};
inline constexpr std::array kAccessCondition{In("AccessConditionNumber"), In("NewValue")};
inline constexpr std::array kWriteTrailer{In("SectorNumber"),
                                          In("Key"),
                                          In("KeyType"),
                                          In("KeyA"),
                                          In("KeyB"),
                                          In("KeysToUse"),
                                          In("Security0", "SCBS_SecurityLevelEnum"),
                                          In("Security1", "SCBS_SecurityLevelEnum"),
                                          In("Security2", "SCBS_SecurityLevelEnum"),
                                          In("Conditions", "SCSS_SecurityLevelEnum"),
                                          Optional("BX")};
inline constexpr std::array kReadTrailer{In("SectorNumber"),
                                         In("Key"),
                                         In("KeyType"),
                                         InOut("KeysUsed"),
                                         InOut("Security0", "SCBS_SecurityLevelEnum"),
                                         InOut("Security1", "SCBS_SecurityLevelEnum"),
                                         InOut("Security2", "SCBS_SecurityLevelEnum"),
                                         InOut("Conditions", "SCSS_SecurityLevelEnum"),
                                         InOut("BX")};

inline constexpr std::array kDesfireSelect{In("ApplicationId"), In("KeyNumber"), In("KeyValue")};
inline constexpr std::array kDesfireKeyValue{In("KeyValue")};
inline constexpr std::array kDesfireApplicationId{In("ApplicationId")};
inline constexpr std::array kDesfireCreateApplication{In("ApplicationId"), In("KeySettings"), In("NumOfKeys")};
inline constexpr std::array kDesfireApplications{InOut("Applications")};
inline constexpr std::array kDesfireVersion{In("RequestedInformation"), InOut("Information")};
inline constexpr std::array kDesfireChangeKey{In("KeyNumber"), In("OldKey"), In("NewKey")};
inline constexpr std::array kDesfireKeyVersion{In("KeyNumber"), InOut("KeyVersion")};
inline constexpr std::array kDesfireKeySettingsOut{InOut("KeySettings"), InOut("KeyCount")};
inline constexpr std::array kDesfireKeySettingsIn{In("KeySettings")};

inline constexpr std::array kDesfireFileIds{InOut("FileIds")};
inline constexpr std::array kDesfireDataFile{In("FileNumber"), In("CommunicationSettings"), In("KeyRead"),
                                             In("KeyWrite"),   In("KeyReadWrite"),          In("KeyManage"),
                                             In("FileSize")};
inline constexpr std::array kDesfireValueFile{In("FileNumber"),   In("CommunicationSettings"),
                                              In("KeyRead"),      In("KeyWrite"),
                                              In("KeyReadWrite"), In("KeyManage"),
                                              In("LowerLimit"),   In("UpperLimit"),
                                              In("InitialValue"), In("LimitedCreditEnabled")};
inline constexpr std::array kDesfireRecordFile{In("FileNumber"), In("CommunicationSettings"), In("KeyRead"),
                                               In("KeyWrite"),   In("KeyReadWrite"),          In("KeyManage"),
                                               In("RecordSize"), In("MaxNumOfRecords")};
inline constexpr std::array kDesfireFileNumber{In("FileNumber")};
inline constexpr std::array kDesfireFileSettings{In("FileNo"), InOut("Information")};
inline constexpr std::array kDesfireChangeFileSettings{In("FileNo"),   In("CommunicationSettings"), In("KeyRead"),
                                                       In("KeyWrite"), In("KeyReadWrite"),          In("KeyManage")};
inline constexpr std::array kDesfireWrite{In("FileNo"), In("Offset"), In("Length"), In("DataString"),
                                          In("IsDataHexaString")};
inline constexpr std::array kDesfireRead{In("FileNo"), In("Offset"), In("Length"), InOut("DataString"),
                                         In("IsDataHexaString")};
inline constexpr std::array kDesfireValue{In("FileNo"), InOut("ValueData")};
inline constexpr std::array kDesfireAmount{In("FileNo"), In("Amount")};
inline constexpr std::array kDesfireFileNo{In("FileNo")};

inline constexpr std::array kMemberRows{
    // ---- properties of the encoder -------------------------------------------------------------
    Get<Overload<std::string>(&Encoder::Parameters)>(1, "Parameters", "Capabilities and the reader in use"),
    Put<Overload<void, const std::string&>(&Encoder::Parameters), kParametersText>(
        1, "Parameters", "Sets entries: Device=<reader name>, Conformance=card"),
    Get<&Encoder::LastError>(2, "LastError", "The record of the last failure"),
    Get<&Encoder::EncoderState>(3, "EncoderState", "1 closed, 2 open without a card, 3 ready"),
    Get<&Encoder::ReaderType>(4, "ReaderType", "Name, vendor, type, version, serial"),
    Get<&Encoder::ATRString>(5, "ATRString", "The card's answer to reset"),
    Get<&Encoder::CardType>(6, "CardType", "Card type found from the ATR"),
    Get<&Encoder::SerialNumberLength>(7, "SerialNumberLength", "Bytes of the card's serial number"),
    // ---- session and identity ------------------------------------------------------------------
    Method<&Encoder::GetInformation>(10, "GetInformation", "The component's identity"),
    Method<&Encoder::OpenEncoder, kOpen>(11, "OpenEncoder", "Opens the reader named in Parameters"),
    Method<&Encoder::CloseEncoder>(12, "CloseEncoder", "Closes the reader"),
    Method<&Encoder::ReOpenEncoder>(13, "ReOpenEncoder", "Opens the reader again"),
    Method<&Encoder::ReadSerialNumber, kSerial>(14, "ReadSerialNumber", "The card's UID"),
    Method<&Encoder::Escape, kEscape>(15, "Escape", "Sends a raw reader command"),
    Method<&Encoder::GetResponseText, kResponseText>(16, "GetResponseText", "Text of a status word"),
    Method<&Encoder::Configure, kConfigure>(17, "Configure",
                                            "Shows the configuration dialog (\"francais\" or English)"),
    // ---- MIFARE Classic ------------------------------------------------------------------------
    Method<&Encoder::MifareReadDataBloc, kBlock>(20, "MifareReadDataBloc", "Reads a 16-byte block"),
    Method<&Encoder::MifareReadManufacturerCode, kManufacturer>(21, "MifareReadManufacturerCode",
                                                                "Reads the manufacturer block 0"),
    Method<&Encoder::MifareWriteDataBloc, kBlock>(22, "MifareWriteDataBloc", "Writes a 16-byte block"),
    Method<&Encoder::MifareWriteValueBloc, kValueBlock>(23, "MifareWriteValueBloc", "Writes a value block"),
    Method<&Encoder::MifareWriteBytesInBloc, kBytesInBlock>(24, "MifareWriteBytesInBloc",
                                                            "Replaces bytes FromByte..ToByte of a block"),
    Method<&Encoder::MifareSetAccessCondition, kAccessCondition>(25, "MifareSetAccessCondition",
                                                                 "Overrides one built-in access condition"),
    Method<&Encoder::MifareWriteSectorTrailer, kWriteTrailer>(26, "MifareWriteSectorTrailer",
                                                              "Writes keys and access conditions of a sector"),
    Method<&Encoder::MifareReadSectorTrailer, kReadTrailer>(27, "MifareReadSectorTrailer",
                                                            "Reads the access conditions of a sector"),
    Method<&Encoder::ReadDataBloc, kBlock>(30, "ReadDataBloc", "Same as MifareReadDataBloc"),
    Method<&Encoder::ReadManufacturerCode, kManufacturer>(31, "ReadManufacturerCode",
                                                          "Same as MifareReadManufacturerCode"),
    Method<&Encoder::WriteDataBloc, kBlock>(32, "WriteDataBloc", "Same as MifareWriteDataBloc"),
    Method<&Encoder::WriteValueBloc, kValueBlock>(33, "WriteValueBloc", "Same as MifareWriteValueBloc"),
    Method<&Encoder::WriteBytesInBloc, kBytesInBlock>(34, "WriteBytesInBloc", "Same as MifareWriteBytesInBloc"),
    Method<&Encoder::WriteSectorTrailer, kWriteTrailer>(36, "WriteSectorTrailer", "Same as MifareWriteSectorTrailer"),
    Method<&Encoder::ReadSectorTrailer, kReadTrailer>(37, "ReadSectorTrailer", "Same as MifareReadSectorTrailer"),
    // ---- DESFire -------------------------------------------------------------------------------
    Method<&Encoder::DESFireSelectApplication, kDesfireSelect>(
        40, "DESFireSelectApplication", "Selects an application and authenticates with one of its keys"),
    Method<&Encoder::DESFireSelectRoot, kDesfireKeyValue>(41, "DESFireSelectRoot",
                                                          "Selects the card level and authenticates with key 0"),
    Method<&Encoder::DESFireFormat>(42, "DESFireFormat", "Erases every application"),
    Method<&Encoder::DESFireCreateApplication, kDesfireCreateApplication>(
        43, "DESFireCreateApplication", "Creates an application with its key settings and number of keys"),
    Method<&Encoder::DESFireDeleteApplication, kDesfireApplicationId>(44, "DESFireDeleteApplication",
                                                                      "Deletes an application"),
    Method<&Encoder::DESFireGetApplications, kDesfireApplications>(45, "DESFireGetApplications",
                                                                   "The application ids, comma-separated"),
    Method<&Encoder::DESFireGetVersion, kDesfireVersion>(
        46, "DESFireGetVersion",
        "The card's version record or a part of it (-2 all, -1 storage size, 14 UID, 21 batch)"),
    Method<&Encoder::DESFireChangeKey, kDesfireChangeKey>(47, "DESFireChangeKey",
                                                          "Changes a key of the selected application"),
    Method<&Encoder::DESFireGetKeyVersion, kDesfireKeyVersion>(48, "DESFireGetKeyVersion", "The version of a key"),
    Method<&Encoder::DESFireGetKeySettings, kDesfireKeySettingsOut>(49, "DESFireGetKeySettings",
                                                                    "The key settings and the number of keys"),
    Method<&Encoder::DESFireChangeKeySettings, kDesfireKeySettingsIn>(50, "DESFireChangeKeySettings",
                                                                      "Changes the key settings"),
    // ---- DESFire files, data, records and values -----------------------------------------------
    Method<&Encoder::DESFireGetFileIDs, kDesfireFileIds>(51, "DESFireGetFileIDs",
                                                         "The file numbers of the selected application"),
    Method<&Encoder::DESFireCreateStdDataFile, kDesfireDataFile>(52, "DESFireCreateStdDataFile",
                                                                 "Creates a standard data file"),
    Method<&Encoder::DESFireCreateBackupDataFile, kDesfireDataFile>(
        53, "DESFireCreateBackupDataFile", "Creates a backup data file (writes count once committed)"),
    Method<&Encoder::DESFireCreateValueFile, kDesfireValueFile>(
        54, "DESFireCreateValueFile", "Creates a value file with its limits and initial value"),
    Method<&Encoder::DESFireCreateLinearRecordFile, kDesfireRecordFile>(55, "DESFireCreateLinearRecordFile",
                                                                        "Creates a linear record file"),
    Method<&Encoder::DESFireCreateCyclicRecordFile, kDesfireRecordFile>(56, "DESFireCreateCyclicRecordFile",
                                                                        "Creates a cyclic record file"),
    Method<&Encoder::DESFireDeleteFile, kDesfireFileNumber>(57, "DESFireDeleteFile", "Deletes a file"),
    Method<&Encoder::DESFireGetFileSettings, kDesfireFileSettings>(58, "DESFireGetFileSettings",
                                                                   "A file's settings record as hex bytes"),
    Method<&Encoder::DESFireChangeFileSettings, kDesfireChangeFileSettings>(
        59, "DESFireChangeFileSettings", "Changes a file's communication settings and rights"),
    Method<&Encoder::DESFireCommitTransaction>(60, "DESFireCommitTransaction",
                                               "Makes the pending changes to backup, value and record files count"),
    Method<&Encoder::DESFireAbortTransaction>(61, "DESFireAbortTransaction",
                                              "Drops the pending changes to backup, value and record files"),
    Method<&Encoder::DESFireWriteData, kDesfireWrite>(62, "DESFireWriteData",
                                                      "Writes into a data file (Length 0: the length of DataString)"),
    Method<&Encoder::DESFireReadData, kDesfireRead>(63, "DESFireReadData",
                                                    "Reads from a data file (Length 0: to the end)"),
    Method<&Encoder::DESFireWriteRecord, kDesfireWrite>(64, "DESFireWriteRecord",
                                                        "Writes into the pending record of a record file"),
    Method<&Encoder::DESFireReadRecords, kDesfireRead>(65, "DESFireReadRecords",
                                                       "Reads records, oldest first (Length 0: all)"),
    Method<&Encoder::DESFireGetValue, kDesfireValue>(66, "DESFireGetValue", "The value of a value file"),
    Method<&Encoder::DESFireDebit, kDesfireAmount>(67, "DESFireDebit", "Takes an amount from a value file"),
    Method<&Encoder::DESFireCredit, kDesfireAmount>(68, "DESFireCredit", "Adds an amount to a value file"),
    Method<&Encoder::DESFireLimitedCredit, kDesfireAmount>(69, "DESFireLimitedCredit",
                                                           "Gives back at most what the last committed debits took"),
    Method<&Encoder::DESFireClearRecordFile, kDesfireFileNo>(70, "DESFireClearRecordFile",
                                                             "Empties a record file (once committed)"),
    // ---- the error record ----------------------------------------------------------------------
    FieldGet<&CError::Number>(1, "Number", "Error number (0 = none)"),
    FieldPut<&CError::Number>(1, "Number"),
    FieldGet<&CError::Description>(2, "Description", "Text of the error"),
    FieldPut<&CError::Description>(2, "Description"),
    FieldGet<&CError::LastDllError>(3, "LastDllError", "PC/SC code of the failed call"),
    FieldPut<&CError::LastDllError>(3, "LastDllError"),
    FieldGet<&CError::ComFunction>(4, "ComFunction", "Operation that failed"),
    FieldPut<&CError::ComFunction>(4, "ComFunction"),
    FieldGet<&CError::RdrCommand>(5, "RdrCommand", "Reader function or command"),
    FieldPut<&CError::RdrCommand>(5, "RdrCommand"),
    FieldGet<&CError::RdrRetCode>(6, "RdrRetCode", "PC/SC text or status word"),
    FieldPut<&CError::RdrRetCode>(6, "RdrRetCode"),
};

}  // namespace member_lists

using member_lists::kMemberRows;

}  // namespace elatectwn4::com
