// Public enumerations shared by every area of the component. The numeric
// values are part of the host contract: hosts store them, so never renumber.
#pragma once

#include <cstdint>

namespace elatectwn4 {

/// Result of every operation.
enum sceReturnCode : std::int32_t {
    sceSuccess = 0,
    sceCanceled = 1,  ///< only the configuration dialog returns it
    sceError = 2,     ///< details in Encoder::LastError()
};

/// What Encoder::EncoderState() reports.
enum sceEncoderState : std::int32_t {
    sceUnknown = 0,  ///< never returned; kept for hosts that test for it
    sceClosed = 1,
    sceOpened = 2,  ///< reader open, no card in the field
    sceReady = 3,   ///< reader open, a card answered
};

/// Card families recognised from the ATR; upper nibble = family.
enum sceCardTypes : std::int32_t {
    sceUnhandled = 0,
    sceUnknownType = 1,
    sceMifare1K = 0x11,
    sceMifare4K = 0x12,
    sceMifareUltralight = 0x21,
    sceDESFire = 0x31,
    sceRfid125KHz = 0x41,
    scePicoPass2KS = 0x51,
};

/// Data-block security of a MIFARE Classic sector: one key-A term plus one key-B term.
enum SCBS_SecurityLevelEnum : std::int32_t {
    scbs_A_Nothing = 0,
    scbs_A_Read = 1,
    scbs_A_Write = 2,
    scbs_A_ReadWrite = 3,
    scbs_B_Nothing = 0,
    scbs_B_Read = 4,
    scbs_B_Write = 8,
    scbs_B_ReadWrite = 12,
};

/// Sector-trailer security of a MIFARE Classic sector, built like SCBS_SecurityLevelEnum.
enum SCSS_SecurityLevelEnum : std::int32_t {
    scss_A_Nothing = 0,
    scss_A_WriteKeys = 1,
    scss_A_WriteConditions = 2,
    scss_A_WriteKeysConditions = 3,
    scss_B_Nothing = 0,
    scss_B_WriteKeys = 4,
    scss_B_WriteConditions = 8,
    scss_B_WriteKeysConditions = 12,
};

/// Bits of a DESFire key-settings byte; callers combine them.
enum DesfireKeySettings : std::int32_t {
    dfkAllowChangeMasterKey = 0x01,
    dfkFreeDirectoryList = 0x02,
    dfkFreeCreateDelete = 0x04,
    dfkConfigurationChangeable = 0x08,
    dfkChangeKeyWithMasterKey = 0x00,
    dfkChangeKeyWithTargetedKey = 0xE0,
    dfkChangeKeyFrozen = 0xF0,
};

/// Indexes into the 28-byte DESFire GetVersion record, plus two selectors.
enum DesfireVersionBytes : std::int32_t {
    dfvAllData = -2,
    dfvStorageSize = -1,
    dfvHardwareVendorID = 0,
    dfvHardwareType = 1,
    dfvHardwareSubType = 2,
    dfvHardwareMajorVersion = 3,
    dfvHardwareMinorVersion = 4,
    dfvHardwareStorageSize = 5,
    dfvHardwareProtocol = 6,
    dfvSoftwareVendorID = 7,
    dfvSoftwareType = 8,
    dfvSoftwareSubType = 9,
    dfvSoftwareMajorVersion = 10,
    dfvSoftwareMinorVersion = 11,
    dfvSoftwareStorageSize = 12,
    dfvSoftwareProtocol = 13,
    dfvUID = 14,
    dfvBatchNo = 21,
    dfvProductionWeek = 26,
    dfvProductionYear = 27,
};

/// How a DESFire file's data travels.
enum DesfireCommunicationSettings : std::int32_t {
    dfcPlain = 0,
    dfcPlainMac = 1,
    dfcCiphered = 3,
};

/// Key number that grants a DESFire file right; 14 free, 15 never.
enum DesfireAccessRights : std::int32_t {
    dfaAllow_0 = 0,
    dfaAllow_1 = 1,
    dfaAllow_2 = 2,
    dfaAllow_3 = 3,
    dfaAllow_4 = 4,
    dfaAllow_5 = 5,
    dfaAllow_6 = 6,
    dfaAllow_7 = 7,
    dfaAllow_8 = 8,
    dfaAllow_9 = 9,
    dfaAllow_10 = 10,
    dfaAllow_11 = 11,
    dfaAllow_12 = 12,
    dfaAllow_13 = 13,
    dfaAllowAll = 14,
    dfaDenyAll = 15,
};

/// Fields of a DESFire file-settings record, in the card's order.
enum DesfireFileSettings : std::int32_t {
    dffFileType = 0,
    dffCommunicationSettings = 1,
    dffReadAccessRights = 2,
    dffWriteAccessRights = 3,
    dffFullAccessRights = 4,
    dffChangeAccessRights = 5,
    dffFileSize = 6,
    dffLowerLimit = 7,
    dffUpperLimit = 8,
    dffLimitedCreditValue = 9,
    dffLimitedCreditEnabled = 10,
    dffRecordSize = 11,
    dffTotalRecords = 12,
    dffCurrentRecord = 13,
};

/// The five DESFire file kinds.
enum DesfireFileTypes : std::int32_t {
    dftData = 0,
    dftBackup = 1,
    dftValue = 2,
    dftLinear = 3,
    dftCyclic = 4,
};

}  // namespace elatectwn4
