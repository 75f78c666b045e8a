' MIFARE Classic through COM: blocks, bytes in a block, value blocks, the
' manufacturer block and sector trailers (with the optional BX left out),
' against the simulated 1K card on "Virtual PCD 00 00".

Dim encoder, block, i, serial, checkSum, info, keysUsed, s0, s1, s2, conditions, bx
Set encoder = OpenOn("Virtual PCD 00 00")

' Writes then reads back, key A of a factory card (key type 0).
Dim writes
writes = Array( _
    Array(4, "4A616E6520446F650000000000000000"), _
    Array(5, "00000000000000000000000000000000"), _
    Array(8, "0123456789ABCDEFFEDCBA9876543210"))
For i = 0 To UBound(writes)
    Check "WriteDataBloc " & writes(i)(0), encoder.WriteDataBloc(writes(i)(0), "FFFFFFFFFFFF", 0, writes(i)(1)), 0
    block = ""
    Check "ReadDataBloc " & writes(i)(0), encoder.MifareReadDataBloc(writes(i)(0), "FFFFFFFFFFFF", 0, block), 0
    Check "block " & writes(i)(0), block, writes(i)(1)
Next

Check "WriteBytesInBloc", encoder.WriteBytesInBloc(5, "FFFFFFFFFFFF", 0, 0, 3, "20261121"), 0
block = ""
Call encoder.ReadDataBloc(5, "FFFFFFFFFFFF", 0, block)
Check "bytes 0..3 of block 5", block, "20261121000000000000000000000000"

Check "WriteValueBloc", encoder.WriteValueBloc(6, "FFFFFFFFFFFF", 0, 100), 0
Call encoder.ReadDataBloc(6, "FFFFFFFFFFFF", 0, block)
Check "value block 6", block, "640000009BFFFFFF64000000FF00FF00"

Check "ReadManufacturerCode", encoder.ReadManufacturerCode("FFFFFFFFFFFF", 0, serial, checkSum, info), 0
Check "manufacturer serial", serial, -820105924
Check "manufacturer check sum", checkSum, 192

' Sector 1 locked: A reads, B reads and writes; B changes keys and conditions.
Check "WriteSectorTrailer", encoder.WriteSectorTrailer(1, "FFFFFFFFFFFF", 0, "A0A1A2A3A4A5", "B0B1B2B3B4B5", 2, 13, 13, 13, 12), 0
Check "ReadSectorTrailer", encoder.ReadSectorTrailer(1, "B0B1B2B3B4B5", 2, keysUsed, s0, s1, s2, conditions, bx), 0
Check "KeysUsed", keysUsed, 2
Check "Security0", s0, 13
Check "Security1", s1, 13
Check "Security2", s2, 13
Check "Conditions", conditions, 12
Check "old key refused", encoder.ReadDataBloc(4, "FFFFFFFFFFFF", 0, block), 2
Check "new key A reads", encoder.ReadDataBloc(4, "A0A1A2A3A4A5", 0, block), 0
Check "block 4 with the new key", block, "4A616E6520446F650000000000000000"
Check "key A may not write", encoder.WriteDataBloc(4, "A0A1A2A3A4A5", 0, "00000000000000000000000000000000"), 2
Check "write refusal", encoder.LastError.ComFunction, "MifareWriteDataBloc"

Finish "mifare"
