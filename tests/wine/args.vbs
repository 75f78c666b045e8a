' How scripts pass arguments: in/out ones by reference to a Variant (what
' VBScript does) or by value (nothing comes back), optional ones left out,
' any letter case. The automation errors of calls that cannot be made are
' com_check's: it sees their HRESULTs and argument positions.

Dim encoder, serial, block, keysUsed, s0, s1, s2, conditions, bx
Set encoder = CreateObject("ElatecTWN4.Encoder")
encoder.Parameters = "Device=Virtual PCD 00 00"
Check "OpenEncoder, Handle left out", encoder.OpenEncoder, 0
Check "OpenEncoder, Handle given", encoder.OpenEncoder(0), 0

serial = "unchanged"
Check "in/out by value", encoder.ReadSerialNumber((serial)), 0
Check "by value leaves the variable", serial, "unchanged"
Check "in/out by reference", encoder.ReadSerialNumber(serial), 0
Check "serial written back", serial, "CF1E2D3C"
Dim uninitialised
Check "in/out left Empty", encoder.ReadSerialNumber(uninitialised), 0
Check "Empty written back", uninitialised, "CF1E2D3C"
Check "any letter case", encoder.readserialnumber(serial), 0
Check "numbers as text", encoder.ReadDataBloc("4", "FFFFFFFFFFFF", "0", block), 0
Check "block", Len(block), 32

' BX left out: the trailer keeps the card's byte 9.
Check "WriteSectorTrailer, BX left out", encoder.WriteSectorTrailer(2, "FFFFFFFFFFFF", 0, "FFFFFFFFFFFF", "FFFFFFFFFFFF", 0, -1, -1, -1, -1), 0
Check "ReadSectorTrailer", encoder.ReadSectorTrailer(2, "FFFFFFFFFFFF", 0, keysUsed, s0, s1, s2, conditions, bx), 0
Check "BX kept", bx, 105
Check "WriteSectorTrailer, BX given", encoder.WriteSectorTrailer(2, "FFFFFFFFFFFF", 0, "FFFFFFFFFFFF", "FFFFFFFFFFFF", 0, -1, -1, -1, -1, 66), 0
Call encoder.ReadSectorTrailer(2, "FFFFFFFFFFFF", 0, keysUsed, s0, s1, s2, conditions, bx)
Check "BX written", bx, 66

Finish "args"
