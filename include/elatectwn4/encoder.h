// The object a host talks to: one reader, the card in its field, and the
// record of the last failure.
//
//   elatectwn4::Encoder enc;                       // production PC/SC
//   enc.Parameters("Device=Virtual PCD 00 00");
//   if (enc.OpenEncoder() == elatectwn4::sceSuccess) {
//       std::string uid;
//       if (enc.ReadSerialNumber(uid) != elatectwn4::sceSuccess)
//           std::cerr << enc.LastError().Description << '\n';
//   }
//
// Every operation returns a sceReturnCode and never throws; on sceError the
// details stand in LastError(). An Encoder is used from one thread at a time;
// two Encoders on two readers may run in two threads at once.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "elatectwn4/error.h"
#include "elatectwn4/export.h"
#include "elatectwn4/pcsc.h"
#include "elatectwn4/types.h"
#include "elatectwn4/variant.h"

namespace elatectwn4 {

class ELATECTWN4_API Encoder {
public:
    /// An encoder over the system's PC/SC (libpcsclite).
    Encoder();
    /// An encoder over another PC/SC boundary: a simulator or a test fake.
    explicit Encoder(std::shared_ptr<PcscApi> pcsc);
    /// Closes the session (disconnects the card, releases the context).
    ~Encoder();
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    // ---- State and error reporting -------------------------------------
    /// The record of the last failure (Number 0 after a success). Writable.
    CError& LastError();
    /// sceClosed, sceOpened (no card) or sceReady; talks to the reader.
    sceEncoderState EncoderState();
    /// The card's answer-to-reset as hex bytes separated by blanks.
    std::string ATRString();
    /// The card type found from the ATR through the card-type registry.
    sceCardTypes CardType();
    /// Bytes of the card's serial number, from the card-type registry.
    std::int32_t SerialNumberLength();

    // ---- Parameters and information -------------------------------------
    /// "Encoding capabilities=...\r\nDevice=<reader>".
    std::string Parameters();
    /// Entries "key=value" separated by CR LF (or ";" when there is no CR LF);
    /// keys are trimmed and compared in lower case, values trimmed, and the
    /// last entry of a key wins. An entry the text does not hold keeps its
    /// value, and an open session stays open.
    ///   Device       the reader's name.
    ///   Conformance  "card" (any case): where the component's own frame or
    ///                layout differs from what the cards document, send what
    ///                the cards document (see each member). Any other value:
    ///                the component's own, the default. The places:
    ///                DESFireChangeKey of a key other than the session's
    ///                sends the 24-byte cryptogram EV1 cards take in legacy
    ///                mode instead of two padded pieces of 24 bytes, which
    ///                such cards refuse. DESFireChangeFileSettings sends only
    ///                the form the file's change right calls for (plain when
    ///                anyone may change the settings, enciphered otherwise)
    ///                instead of plain first and enciphered after a refusal,
    ///                which a card that ends its session on the refusal
    ///                turns down. Enciphered reads whose length is left open
    ///                (DESFireReadRecords, DESFireReadData with Length 0)
    ///                take the length from the file's settings instead of the
    ///                zero padding, so data whose CRC ends in a zero byte
    ///                reads back whole instead of one byte short.
    ///                MifareWriteSectorTrailer and MifareReadSectorTrailer of
    ///                sectors 32..39 of a 4K card (16 blocks each) use the
    ///                sector's real trailer, block 128 + 16 * (n - 32) + 15,
    ///                and Security0..2 then govern its data blocks 0-4, 5-9
    ///                and 10-14, instead of block 4 * n + 3, a data block of
    ///                another sector, where the keys would be readable.
    /// Every other key is ignored.
    void Parameters(const std::string& text);
    /// "Pellucid|Elatec TWN4|<major>.<minor>.<revision>|1|<n>|<capabilities>".
    std::string GetInformation();
    /// Opens the encoder (a failure to reach PC/SC is sceError, with the
    /// record of OpenEncoder named "Configure"), then shows the configuration
    /// dialog and waits for it: the readers PC/SC lists, the one named in
    /// Parameters selected, a Test button whose dialog opens the encoder on
    /// the chosen reader about once a second and shows the card's ATR, type
    /// and serial number, OK (Return) and Cancel (Escape). French when
    /// Language is "francais", English otherwise.
    ///   sceSuccess   OK: Parameters names the chosen reader ("Device=...")
    ///   sceCanceled  Cancel, Escape or the window closed: Parameters unchanged
    ///   sceError     0x90010F07 when the dialog cannot be shown: RdrCommand
    ///                is the dialog program, RdrRetCode says why (not
    ///                installed, no display, it ended without an answer)
    /// The window is the program twn4-configure, started as a child process:
    /// ELATECTWN4_CONFIGURE_PROGRAM names it, else the installed one in
    /// <libexecdir>/elatectwn4/ (on Windows twn4-configure.exe beside the
    /// DLL). It needs DISPLAY or WAYLAND_DISPLAY (not on Windows). Every
    /// card exchange runs here, through this encoder's PC/SC boundary.
    sceReturnCode Configure(const std::string& Language = {});

    // ---- Reader session --------------------------------------------------
    /// Establishes the PC/SC context and connects to the configured reader.
    /// Succeeds without a card (LastError then holds 0x90010F06).
    sceReturnCode OpenEncoder(std::int32_t Handle = 0);
    /// Opens again; the result is only visible in LastError().
    void ReOpenEncoder();
    /// Disconnects the card and releases the context; closing twice is fine.
    sceReturnCode CloseEncoder();

    // Every member that reads from the card checks the answer's form before
    // it uses it: an answer without a status word, a UID that is not 4, 7 or
    // 10 bytes, a block that is not 16 bytes, a trailer whose access bits
    // disagree with their inverted copies fail with 0x90010F04 "Encoder
    // command failed", RdrRetCode saying what arrived (DESFire members: their
    // own number, most often 0x90010E03); nothing is written from it.

    // ---- Card identity ---------------------------------------------------
    /// The card's UID as contiguous hex digits ("04A1B2C3D4E5F6").
    sceReturnCode ReadSerialNumber(std::string& SerialNumber);
    /// Sends a raw reader command (hex text) and returns the raw answer as hex.
    sceReturnCode Escape(const std::string& sCommand, std::string& sBuffer);
    /// Five lines describing the reader (name, vendor, type, version, serial).
    std::string ReaderType();
    /// Readable text for a status word ("6982", "91AE", "AE").
    std::string GetResponseText(const std::string& sw1sw2, const std::string& EncoderCommand);

    // ---- MIFARE Classic: blocks ------------------------------------------
    // Key: 12 hex digits. KeyType: 2 = key B, anything else key A. Blocks are
    // 32 hex digits. Each member without the "Mifare" prefix forwards to it.
    sceReturnCode MifareReadDataBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                     std::string& BlocContents);
    sceReturnCode MifareReadManufacturerCode(const std::string& Key, std::uint8_t KeyType, std::int32_t& SerialNumber,
                                             std::uint8_t& CheckSum, std::string& ManufacturerInfo);
    sceReturnCode MifareWriteDataBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                      std::string& BlocContents);
    sceReturnCode MifareWriteValueBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                       std::int32_t Value);
    /// Replaces bytes FromByte..ToByte (0..15) of a block, keeping the others.
    sceReturnCode MifareWriteBytesInBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                         std::uint8_t FromByte, std::uint8_t ToByte, std::string& BlocContents);

    sceReturnCode ReadDataBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                               std::string& BlocContents);
    sceReturnCode ReadManufacturerCode(const std::string& Key, std::uint8_t KeyType, std::int32_t& SerialNumber,
                                       std::uint8_t& CheckSum, std::string& ManufacturerInfo);
    sceReturnCode WriteDataBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                std::string& BlocContents);
    sceReturnCode WriteValueBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                 std::int32_t Value);
    sceReturnCode WriteBytesInBloc(std::int32_t BlocNumber, const std::string& Key, std::uint8_t KeyType,
                                   std::uint8_t FromByte, std::uint8_t ToByte, std::string& BlocContents);

    // ---- MIFARE Classic: sector trailers -----------------------------------
    /// Overrides one of the nine built-in data-block access conditions ("000".."111").
    void MifareSetAccessCondition(std::int32_t AccessConditionNumber, const std::string& NewValue);
    /// Security0..2: SCBS_SecurityLevelEnum sums (-1 = keep); Conditions: a
    /// SCSS_SecurityLevelEnum sum (-1 = keep); KeysToUse 1 = key A only, 0 =
    /// keep the card's scheme; BX empty = keep the card's byte 9.
    sceReturnCode MifareWriteSectorTrailer(std::int32_t SectorNumber, const std::string& Key, std::uint8_t KeyType,
                                           const std::string& KeyA, const std::string& KeyB, std::uint8_t KeysToUse,
                                           std::int32_t Security0, std::int32_t Security1, std::int32_t Security2,
                                           std::int32_t Conditions, const Variant& BX = {});
    sceReturnCode MifareReadSectorTrailer(std::int32_t SectorNumber, const std::string& Key, std::uint8_t KeyType,
                                          std::uint8_t& KeysUsed, std::int32_t& Security0, std::int32_t& Security1,
                                          std::int32_t& Security2, std::int32_t& Conditions, std::uint8_t& BX);
    sceReturnCode WriteSectorTrailer(std::int32_t SectorNumber, const std::string& Key, std::uint8_t KeyType,
                                     const std::string& KeyA, const std::string& KeyB, std::uint8_t KeysToUse,
                                     std::int32_t Security0, std::int32_t Security1, std::int32_t Security2,
                                     std::int32_t Conditions, const Variant& BX = {});
    sceReturnCode ReadSectorTrailer(std::int32_t SectorNumber, const std::string& Key, std::uint8_t KeyType,
                                    std::uint8_t& KeysUsed, std::int32_t& Security0, std::int32_t& Security1,
                                    std::int32_t& Security2, std::int32_t& Conditions, std::uint8_t& BX);

    // ---- DESFire: selection and authentication ----------------------------
    // Application ids are 6 hex digits ("A1B2C3", blanks allowed), sent in
    // the order written. Keys are hex digits: 32 for Triple-DES (K1 K2), 16
    // for single DES. The session opened here serves the members below until
    // the next selection or CloseEncoder; a failed selection keeps it.

    /// Selects the application and authenticates with key KeyNumber (0..13).
    /// Leaves LastError as it was on success.
    sceReturnCode DESFireSelectApplication(const std::string& ApplicationId, std::int32_t KeyNumber,
                                           const std::string& KeyValue);
    /// The card level (application 000000) with key 0.
    sceReturnCode DESFireSelectRoot(const std::string& KeyValue);

    // ---- DESFire: applications and keys ------------------------------------
    /// Erases every application; card level only.
    sceReturnCode DESFireFormat();
    /// Card level only. KeySettings: DesfireKeySettings bits (0..255);
    /// NumOfKeys 1..14.
    sceReturnCode DESFireCreateApplication(const std::string& ApplicationId, DesfireKeySettings KeySettings,
                                           std::int32_t NumOfKeys);
    sceReturnCode DESFireDeleteApplication(const std::string& ApplicationId);
    /// Applications = "A1B2C3,010203" ("" for none).
    sceReturnCode DESFireGetApplications(std::string& Applications);
    /// Information = the whole record or the UID / batch number (byte arrays),
    /// the storage size in bytes (a Long) or one byte; asked from the card
    /// once per session.
    sceReturnCode DESFireGetVersion(DesfireVersionBytes RequestedInformation, Variant& Information);
    /// Needs a session. KeyNumber 0 at card level, 0..13 in an application;
    /// keys of 16 or 32 hex digits.
    sceReturnCode DESFireChangeKey(std::int32_t KeyNumber, const std::string& OldKey, const std::string& NewKey);
    sceReturnCode DESFireGetKeyVersion(std::int32_t KeyNumber, std::int32_t& KeyVersion);
    sceReturnCode DESFireGetKeySettings(std::int32_t& KeySettings, std::int32_t& KeyCount);
    sceReturnCode DESFireChangeKeySettings(DesfireKeySettings KeySettings);

    // ---- DESFire: files --------------------------------------------------------
    // The files of the selected application; every member needs a session.
    // File numbers 0..15, but 0..7 for value and record files. Rights are a
    // key number 0..13, dfaAllowAll or dfaDenyAll, given in the order read,
    // write, read&write, change (KeyManage).

    /// FileIds = the file numbers in decimal, ascending, "1,3,5" ("" for none).
    sceReturnCode DESFireGetFileIDs(std::string& FileIds);
    /// FileSize 1..0xFFFFFF bytes.
    sceReturnCode DESFireCreateStdDataFile(std::int32_t FileNumber, DesfireCommunicationSettings CommunicationSettings,
                                           DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                           DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage,
                                           std::int32_t FileSize);
    /// A data file whose writes count once committed.
    sceReturnCode DESFireCreateBackupDataFile(std::int32_t FileNumber,
                                              DesfireCommunicationSettings CommunicationSettings,
                                              DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                              DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage,
                                              std::int32_t FileSize);
    /// LowerLimit <= InitialValue <= UpperLimit.
    sceReturnCode DESFireCreateValueFile(std::int32_t FileNumber, DesfireCommunicationSettings CommunicationSettings,
                                         DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                         DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage,
                                         std::int32_t LowerLimit, std::int32_t UpperLimit, std::int32_t InitialValue,
                                         bool LimitedCreditEnabled);
    /// RecordSize and MaxNumOfRecords 1..0xFFFFFF. A linear file refuses a
    /// record once full; a cyclic one drops its oldest.
    sceReturnCode DESFireCreateLinearRecordFile(std::int32_t FileNumber,
                                                DesfireCommunicationSettings CommunicationSettings,
                                                DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                                DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage,
                                                std::int32_t RecordSize, std::int32_t MaxNumOfRecords);
    sceReturnCode DESFireCreateCyclicRecordFile(std::int32_t FileNumber,
                                                DesfireCommunicationSettings CommunicationSettings,
                                                DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                                DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage,
                                                std::int32_t RecordSize, std::int32_t MaxNumOfRecords);
    sceReturnCode DESFireDeleteFile(std::int32_t FileNumber);
    /// Information = the settings record as hex bytes, "00 03 E1 12 20 00 00"
    /// (fields in DesfireFileSettings order).
    sceReturnCode DESFireGetFileSettings(std::int32_t FileNo, std::string& Information);
    /// CommunicationSettings: any byte 0..255. Sent plain, and enciphered
    /// when the card refuses that (see Conformance=card).
    sceReturnCode DESFireChangeFileSettings(std::int32_t FileNo, DesfireCommunicationSettings CommunicationSettings,
                                            DesfireAccessRights KeyRead, DesfireAccessRights KeyWrite,
                                            DesfireAccessRights KeyReadWrite, DesfireAccessRights KeyManage);
    /// Nothing to commit or abort is a failure of its own (0x90010E4F).
    sceReturnCode DESFireCommitTransaction();
    sceReturnCode DESFireAbortTransaction();

    // ---- DESFire: data and records ------------------------------------------
    // Plain, MACed or enciphered as the file's settings say; long transfers go
    // in several frames. DataString is hex text (blanks allowed) when
    // IsDataHexaString, otherwise one byte per character; reads give compact
    // upper-case hex or the characters.

    /// Length 1..0xFFFFFF, or 0 for the number of characters of DataString;
    /// the data is cut or filled with zero bytes to Length.
    sceReturnCode DESFireWriteData(std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                   const std::string& DataString, bool IsDataHexaString);
    /// Length bytes from Offset; 0 reads to the end of the file.
    sceReturnCode DESFireReadData(std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                  std::string& DataString, bool IsDataHexaString);
    /// Writes into the record of the open transaction; Offset and Length
    /// within the record.
    sceReturnCode DESFireWriteRecord(std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                     const std::string& DataString, bool IsDataHexaString);
    /// Length records (0: all) from Offset records back from the newest,
    /// oldest first.
    sceReturnCode DESFireReadRecords(std::int32_t FileNo, std::int32_t Offset, std::int32_t Length,
                                     std::string& DataString, bool IsDataHexaString);

    // ---- DESFire: values ------------------------------------------------------
    // Amounts 0 or more; changes count once committed. Beyond the file's
    // limits: 0x90010E50, beyond what a limited credit may give back:
    // 0x90010E51.
    sceReturnCode DESFireGetValue(std::int32_t FileNo, std::int32_t& ValueData);
    sceReturnCode DESFireDebit(std::int32_t FileNo, std::int32_t Amount);
    sceReturnCode DESFireCredit(std::int32_t FileNo, std::int32_t Amount);
    /// Gives back at most what the last committed debits took.
    sceReturnCode DESFireLimitedCredit(std::int32_t FileNo, std::int32_t Amount);
    /// Empties a record file once committed. FileNo goes to the card as its low byte, unchecked.
    sceReturnCode DESFireClearRecordFile(std::int32_t FileNo);

    struct Impl;

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace elatectwn4
