' DESFire through COM against the simulated card on "Virtual PCD 00 01":
' the version record (a number and byte arrays), an application with keys
' of its own, a data file in each communication mode, a value file.

Dim encoder, info, apps, settings, count, data, value, i
Set encoder = OpenOn("Virtual PCD 00 01")
' Key changes in the form EV1 cards take.
encoder.Parameters = "Conformance=card"
Const Factory = "0000000000000000"
Const AppKey = "00112233445566778899AABBCCDDEEFF"

Check "DESFireSelectRoot", encoder.DESFireSelectRoot(Factory), 0
Check "DESFireGetVersion storage", encoder.DESFireGetVersion(-1, info), 0
Check "storage size", info, 4096
' Byte arrays (-2 the whole record, 14 the UID): com_check reads them, since
' Wine's script engine cannot.
Check "DESFireGetVersion vendor", encoder.DESFireGetVersion(0, info), 0
Check "vendor", info, 4

Check "DESFireCreateApplication", encoder.DESFireCreateApplication("A1B2C3", 15, 3), 0
Check "duplicate application", encoder.DESFireCreateApplication("A1B2C3", 15, 3), 2
Check "duplicate status", encoder.LastError.RdrRetCode, "DE"
Check "DESFireGetApplications", encoder.DESFireGetApplications(apps), 0
Check "applications", apps, "A1B2C3"

Check "select with the factory key", encoder.DESFireSelectApplication("A1B2C3", 0, Factory), 0
Check "DESFireChangeKey 1", encoder.DESFireChangeKey(1, Factory, AppKey), 0
Check "DESFireGetKeySettings", encoder.DESFireGetKeySettings(settings, count), 0
Check "key settings", settings, 15
Check "key count", count, 3
Check "select with key 1", encoder.DESFireSelectApplication("A1B2C3", 1, AppKey), 0
Check "key 1 wrong", encoder.DESFireSelectApplication("A1B2C3", 1, Factory), 2
Check "select again with key 0", encoder.DESFireSelectApplication("A1B2C3", 0, Factory), 0

' One data file per mode (plain, MACed, enciphered); key 0 has every right.
Dim modes
modes = Array(0, 1, 3)
For i = 0 To UBound(modes)
    Check "create file " & (i + 1), encoder.DESFireCreateStdDataFile(i + 1, modes(i), 0, 0, 0, 0, 64), 0
    Check "write file " & (i + 1), encoder.DESFireWriteData(i + 1, 0, 0, "Jane Doe / member 0042", False), 0
    data = ""
    Check "read file " & (i + 1), encoder.DESFireReadData(i + 1, 0, 22, data, False), 0
    Check "data of file " & (i + 1), data, "Jane Doe / member 0042"
    Check "read file " & (i + 1) & " as hex", encoder.DESFireReadData(i + 1, 0, 4, data, True), 0
    Check "hex of file " & (i + 1), data, "4A616E65"
Next
Check "DESFireGetFileIDs", encoder.DESFireGetFileIDs(data), 0
Check "file ids", data, "1,2,3"

Check "DESFireCreateValueFile", encoder.DESFireCreateValueFile(5, 0, 0, 0, 0, 0, 0, 1000, 100, False), 0
Check "DESFireCredit", encoder.DESFireCredit(5, 50), 0
Check "DESFireCommitTransaction", encoder.DESFireCommitTransaction(), 0
Check "DESFireGetValue", encoder.DESFireGetValue(5, value), 0
Check "value", value, 150
Check "debit below the limit", encoder.DESFireDebit(5, 500), 2
Check "debit refusal", encoder.LastError.Number, &H90010E50
Check "commit with nothing pending", encoder.DESFireCommitTransaction(), 2
Check "commit refusal", encoder.LastError.Number, &H90010E4F

Finish "desfire"
