#include "com/idl.h"

#include <array>

#include "com/typelib.h"
#include "com/typelib_ids.h"
#include "elatectwn4/types.h"

namespace elatectwn4::com {
namespace {

// An enumerator under its own C++ name, so a renamed one cannot go unnoticed.
#define ELATECTWN4_ENUMERATOR(e) \
    Enumerator {                 \
#e, e                    \
    }

constexpr std::array kReturnCodes{ELATECTWN4_ENUMERATOR(sceSuccess), ELATECTWN4_ENUMERATOR(sceCanceled),
                                  ELATECTWN4_ENUMERATOR(sceError)};
constexpr std::array kEncoderStates{ELATECTWN4_ENUMERATOR(sceUnknown), ELATECTWN4_ENUMERATOR(sceClosed),
                                    ELATECTWN4_ENUMERATOR(sceOpened), ELATECTWN4_ENUMERATOR(sceReady)};
constexpr std::array kCardTypes{ELATECTWN4_ENUMERATOR(sceUnhandled),        ELATECTWN4_ENUMERATOR(sceUnknownType),
                                ELATECTWN4_ENUMERATOR(sceMifare1K),         ELATECTWN4_ENUMERATOR(sceMifare4K),
                                ELATECTWN4_ENUMERATOR(sceMifareUltralight), ELATECTWN4_ENUMERATOR(sceDESFire),
                                ELATECTWN4_ENUMERATOR(sceRfid125KHz),       ELATECTWN4_ENUMERATOR(scePicoPass2KS)};
constexpr std::array kBlockSecurity{ELATECTWN4_ENUMERATOR(scbs_A_Nothing), ELATECTWN4_ENUMERATOR(scbs_A_Read),
                                    ELATECTWN4_ENUMERATOR(scbs_A_Write),   ELATECTWN4_ENUMERATOR(scbs_A_ReadWrite),
                                    ELATECTWN4_ENUMERATOR(scbs_B_Nothing), ELATECTWN4_ENUMERATOR(scbs_B_Read),
                                    ELATECTWN4_ENUMERATOR(scbs_B_Write),   ELATECTWN4_ENUMERATOR(scbs_B_ReadWrite)};
constexpr std::array kTrailerSecurity{
    ELATECTWN4_ENUMERATOR(scss_A_Nothing),         ELATECTWN4_ENUMERATOR(scss_A_WriteKeys),
    ELATECTWN4_ENUMERATOR(scss_A_WriteConditions), ELATECTWN4_ENUMERATOR(scss_A_WriteKeysConditions),
    ELATECTWN4_ENUMERATOR(scss_B_Nothing),         ELATECTWN4_ENUMERATOR(scss_B_WriteKeys),
    ELATECTWN4_ENUMERATOR(scss_B_WriteConditions), ELATECTWN4_ENUMERATOR(scss_B_WriteKeysConditions)};
constexpr std::array kKeySettings{
    ELATECTWN4_ENUMERATOR(dfkAllowChangeMasterKey),   ELATECTWN4_ENUMERATOR(dfkFreeDirectoryList),
    ELATECTWN4_ENUMERATOR(dfkFreeCreateDelete),       ELATECTWN4_ENUMERATOR(dfkConfigurationChangeable),
    ELATECTWN4_ENUMERATOR(dfkChangeKeyWithMasterKey), ELATECTWN4_ENUMERATOR(dfkChangeKeyWithTargetedKey),
    ELATECTWN4_ENUMERATOR(dfkChangeKeyFrozen)};
constexpr std::array kVersionBytes{ELATECTWN4_ENUMERATOR(dfvAllData),
                                   ELATECTWN4_ENUMERATOR(dfvStorageSize),
                                   ELATECTWN4_ENUMERATOR(dfvHardwareVendorID),
                                   ELATECTWN4_ENUMERATOR(dfvHardwareType),
                                   ELATECTWN4_ENUMERATOR(dfvHardwareSubType),
                                   ELATECTWN4_ENUMERATOR(dfvHardwareMajorVersion),
                                   ELATECTWN4_ENUMERATOR(dfvHardwareMinorVersion),
                                   ELATECTWN4_ENUMERATOR(dfvHardwareStorageSize),
                                   ELATECTWN4_ENUMERATOR(dfvHardwareProtocol),
                                   ELATECTWN4_ENUMERATOR(dfvSoftwareVendorID),
                                   ELATECTWN4_ENUMERATOR(dfvSoftwareType),
                                   ELATECTWN4_ENUMERATOR(dfvSoftwareSubType),
                                   ELATECTWN4_ENUMERATOR(dfvSoftwareMajorVersion),
                                   ELATECTWN4_ENUMERATOR(dfvSoftwareMinorVersion),
                                   ELATECTWN4_ENUMERATOR(dfvSoftwareStorageSize),
                                   ELATECTWN4_ENUMERATOR(dfvSoftwareProtocol),
                                   ELATECTWN4_ENUMERATOR(dfvUID),
                                   ELATECTWN4_ENUMERATOR(dfvBatchNo),
                                   ELATECTWN4_ENUMERATOR(dfvProductionWeek),
                                   ELATECTWN4_ENUMERATOR(dfvProductionYear)};
constexpr std::array kCommunication{ELATECTWN4_ENUMERATOR(dfcPlain), ELATECTWN4_ENUMERATOR(dfcPlainMac),
                                    ELATECTWN4_ENUMERATOR(dfcCiphered)};
constexpr std::array kAccessRights{
    ELATECTWN4_ENUMERATOR(dfaAllow_0),  ELATECTWN4_ENUMERATOR(dfaAllow_1),  ELATECTWN4_ENUMERATOR(dfaAllow_2),
    ELATECTWN4_ENUMERATOR(dfaAllow_3),  ELATECTWN4_ENUMERATOR(dfaAllow_4),  ELATECTWN4_ENUMERATOR(dfaAllow_5),
    ELATECTWN4_ENUMERATOR(dfaAllow_6),  ELATECTWN4_ENUMERATOR(dfaAllow_7),  ELATECTWN4_ENUMERATOR(dfaAllow_8),
    ELATECTWN4_ENUMERATOR(dfaAllow_9),  ELATECTWN4_ENUMERATOR(dfaAllow_10), ELATECTWN4_ENUMERATOR(dfaAllow_11),
    ELATECTWN4_ENUMERATOR(dfaAllow_12), ELATECTWN4_ENUMERATOR(dfaAllow_13), ELATECTWN4_ENUMERATOR(dfaAllowAll),
    ELATECTWN4_ENUMERATOR(dfaDenyAll)};
constexpr std::array kFileSettings{ELATECTWN4_ENUMERATOR(dffFileType),
                                   ELATECTWN4_ENUMERATOR(dffCommunicationSettings),
                                   ELATECTWN4_ENUMERATOR(dffReadAccessRights),
                                   ELATECTWN4_ENUMERATOR(dffWriteAccessRights),
                                   ELATECTWN4_ENUMERATOR(dffFullAccessRights),
                                   ELATECTWN4_ENUMERATOR(dffChangeAccessRights),
                                   ELATECTWN4_ENUMERATOR(dffFileSize),
                                   ELATECTWN4_ENUMERATOR(dffLowerLimit),
                                   ELATECTWN4_ENUMERATOR(dffUpperLimit),
                                   ELATECTWN4_ENUMERATOR(dffLimitedCreditValue),
                                   ELATECTWN4_ENUMERATOR(dffLimitedCreditEnabled),
                                   ELATECTWN4_ENUMERATOR(dffRecordSize),
                                   ELATECTWN4_ENUMERATOR(dffTotalRecords),
                                   ELATECTWN4_ENUMERATOR(dffCurrentRecord)};
constexpr std::array kFileTypes{ELATECTWN4_ENUMERATOR(dftData), ELATECTWN4_ENUMERATOR(dftBackup),
                                ELATECTWN4_ENUMERATOR(dftValue), ELATECTWN4_ENUMERATOR(dftLinear),
                                ELATECTWN4_ENUMERATOR(dftCyclic)};

#undef ELATECTWN4_ENUMERATOR

constexpr std::array kEnumerations{
    Enumeration{"sceReturnCode", kReturnCodes},
    Enumeration{"sceEncoderState", kEncoderStates},
    Enumeration{"sceCardTypes", kCardTypes},
    Enumeration{"SCBS_SecurityLevelEnum", kBlockSecurity},
    Enumeration{"SCSS_SecurityLevelEnum", kTrailerSecurity},
    Enumeration{"DesfireKeySettings", kKeySettings},
    Enumeration{"DesfireVersionBytes", kVersionBytes},
    Enumeration{"DesfireCommunicationSettings", kCommunication},
    Enumeration{"DesfireAccessRights", kAccessRights},
    Enumeration{"DesfireFileSettings", kFileSettings},
    Enumeration{"DesfireFileTypes", kFileTypes},
};

std::string Bare(std::string_view guid) {
    return std::string(guid.substr(1, guid.size() - 2));
}

std::string Quoted(std::string_view text) {
    std::string out = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + '"';
}

// The IDL type of a value: an enumeration by its name, the others by their automation type.
std::string IdlType(ValueType type, std::string_view typeName) {
    switch (type) {
        case ValueType::String:
            return "BSTR";
        case ValueType::Long:
            return typeName == "Long" ? "long" : std::string(typeName);
        case ValueType::Byte:
            return "unsigned char";
        case ValueType::Boolean:
            return "VARIANT_BOOL";
        case ValueType::Variant:
            return "VARIANT";
        case ValueType::Object:
            return "_CError*";
        case ValueType::Void:
            break;
    }
    return "void";
}

// A left-out optional argument: a Variant arrives as missing, the others as their zero.
std::string DefaultValue(ValueType type) {
    return type == ValueType::String ? "\"\"" : "0";
}

std::string Parameter(const ParamInfo& p) {
    const std::string type = IdlType(p.type, p.typeName);
    if (p.inOut) return "[in, out] " + type + "* " + std::string(p.name);
    if (p.optional && p.type == ValueType::Variant) return "[in, optional] " + type + " " + std::string(p.name);
    if (p.optional) return "[in, defaultvalue(" + DefaultValue(p.type) + ")] " + type + " " + std::string(p.name);
    return "[in] " + type + " " + std::string(p.name);
}

std::string Member(const MemberInfo& m) {
    std::string attributes = "id(" + std::to_string(m.dispId) + ")";
    if (m.kind == MemberKind::PropertyGet) attributes += ", propget";
    if (m.kind == MemberKind::PropertyPut) attributes += ", propput";
    if (!m.help.empty()) attributes += ", helpstring(" + Quoted(m.help) + ")";
    std::string params;
    for (const auto& p : m.params) {
        if (!params.empty()) params += ", ";
        params += Parameter(p);
    }
    if (m.result != ValueType::Void) {
        if (!params.empty()) params += ", ";
        params += "[out, retval] " + IdlType(m.result, m.resultTypeName) + "* Result";
    }
    return "        [" + attributes + "]\n        HRESULT " + std::string(m.name) + "(" + params + ");\n";
}

std::string Interface(std::string_view name, std::string_view id, std::string_view help) {
    std::string out = "    [\n        uuid(" + Bare(id) + "),\n        helpstring(" + Quoted(help) +
                      "),\n        dual,\n        nonextensible,\n        oleautomation\n    ]\n    interface " +
                      std::string(name) + " : IDispatch\n    {\n";
    for (const auto& row : MemberRows()) {
        if (row.info.interfaceName == name) out += Member(row.info);
    }
    return out + "    };\n\n";
}

}  // namespace

std::span<const Enumeration> Enumerations() {
    return kEnumerations;
}

std::string TypeLibraryIdl() {
    std::string out =
        "// The type library of the ElatecTWN4 component, written from its member table.\n\nimport "
        "\"oaidl.idl\";\n\n[\n    uuid(" +
        Bare(kLibraryId) + "),\n    version(" + std::to_string(kLibraryMajor) + "." + std::to_string(kLibraryMinor) +
        "),\n    helpstring(\"ElatecTWN4 contactless card encoder\")\n]\nlibrary " + std::string(kLibraryName) +
        "\n{\n    importlib(\"stdole2.tlb\");\n\n";
    for (const auto& e : kEnumerations) {
        out += "    typedef enum " + std::string(e.name) + "\n    {\n";
        for (std::size_t i = 0; i < e.members.size(); ++i) {
            out += "        " + std::string(e.members[i].name) + " = " + std::to_string(e.members[i].value) +
                   (i + 1 < e.members.size() ? ",\n" : "\n");
        }
        out += "    } " + std::string(e.name) + ";\n\n";
    }
    out += "    interface _CError;\n    interface _Encoder;\n\n";
    out += Interface("_CError", kErrorInterfaceId, "The record of the last failure");
    out += Interface("_Encoder", kEncoderInterfaceId, "A contactless card encoder");
    out += "    [\n        uuid(" + Bare(kErrorClassId) +
           "),\n        noncreatable,\n        helpstring(\"The record of the last failure\")\n    ]\n"
           "    coclass CError\n    {\n        [default] interface _CError;\n    };\n\n";
    out += "    [\n        uuid(" + Bare(kEncoderClassId) +
           "),\n        helpstring(\"A contactless card encoder\")\n    ]\n"
           "    coclass Encoder\n    {\n        [default] interface _Encoder;\n    };\n};\n";
    return out;
}

}  // namespace elatectwn4::com
