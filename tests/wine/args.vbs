' How scripts pass arguments: in/out ones by reference to a Variant (what
' VBScript does) or by value (nothing comes back), optional ones left out,
' any letter case; and the automation errors for calls that cannot be made.
Option Explicit
Dim fso
Set fso = CreateObject("Scripting.FileSystemObject")
ExecuteGlobal fso.OpenTextFile(fso.BuildPath(fso.GetParentFolderName(WScript.ScriptFullName), "check.vbs")).ReadAll()

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

' Calls that cannot be made: the script host's errors, nothing sent.
On Error Resume Next
Dim calls, i
calls = Array( _
    Array("too few arguments", "encoder.ReadDataBloc 4", 450), _
    Array("too many arguments", "encoder.CloseEncoder 1, 2", 450), _
    Array("text for a Long", "encoder.ReadDataBloc ""four"", ""FFFFFFFFFFFF"", 0, block", 13), _
    Array("a Byte too large", "encoder.ReadDataBloc 4, ""FFFFFFFFFFFF"", 300, block", 6), _
    Array("an object for a String", "encoder.ReadDataBloc 4, encoder, 0, block", 13), _
    Array("unknown member", "encoder.NoSuchMember 1", 438))
For i = 0 To UBound(calls)
    Err.Clear
    Execute calls(i)(1)
    Check calls(i)(0), Err.Number, calls(i)(2)
Next
Err.Clear
Check "after refused calls", encoder.ReadSerialNumber(serial), 0
Check "no error left", Err.Number, 0

Finish "args"
