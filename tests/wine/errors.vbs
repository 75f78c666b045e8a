' Failures come back as sceError (2) and the LastError record, never as an
' automation error: the script runs on with Err.Number 0 throughout.

On Error Resume Next
Dim encoder, e, serial, block
Set encoder = CreateObject("ElatecTWN4.Encoder")

Check "ReadSerialNumber closed", encoder.ReadSerialNumber(serial), 2
CheckError "closed", encoder, &H90010F01, "Encoder is closed", "SelectCardInRange", "", ""
Check "signed Number", encoder.LastError.Number < 0, True

encoder.Parameters = "Device=No such reader"
Check "OpenEncoder without its reader", encoder.OpenEncoder(), 2
CheckError "no reader", encoder, &H90010F03, "Cannot open encoder", "OpenEncoder", "SCardConnect", "The specified reader name is not recognized."

encoder.Parameters = "Device=Virtual PCD 00 00"
Check "OpenEncoder", encoder.OpenEncoder(), 0
' Argument checks come before anything is sent.
Check "short block", encoder.WriteDataBloc(4, "FFFFFFFFFFFF", 0, "00"), 2
CheckError "short block", encoder, &H90010B42, "A data bloc must contain 32 hex digits", "MifareWriteDataBloc", "", ""
' A refusal by the card carries its status word.
Check "wrong key", encoder.ReadDataBloc(4, "000000000000", 0, block), 2
CheckError "wrong key", encoder, &H90010F04, "Encoder command failed", "MifareAuthenticate", "SCardTransmit:GeneralAuthenticate", "6300"
' A success empties the record and names itself.
Check "ReadSerialNumber", encoder.ReadSerialNumber(serial), 0
CheckError "after a success", encoder, 0, "", "ReadSerialNumber", "", ""

' The record is an object of its own whose fields the host may write.
Set e = encoder.LastError
e.ComFunction = "changed by the host"
e.Number = 7
Check "written ComFunction", encoder.LastError.ComFunction, "changed by the host"
Check "written Number", encoder.LastError.Number, 7
Check "no automation error", Err.Number, 0

Finish "errors"
