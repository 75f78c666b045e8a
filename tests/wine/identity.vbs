' The encoder's frame through COM: a fresh object, opening the readers,
' the card's identity and type (from the card-type table the test puts in
' the registry: DESFire = 31;3B8180;7), and the encoder state.

Dim fresh, e, encoder, serial, readers, i
Set fresh = CreateObject("ElatecTWN4.Encoder")
Set e = fresh.LastError
Check "fresh Number", e.Number, 0
Check "fresh Description", e.Description, ""
Check "fresh EncoderState", fresh.EncoderState, 1
Check "fresh ATRString", fresh.ATRString, ""
Check "fresh Parameters", fresh.Parameters, "Encoding capabilities=Mifare Classic, Mifare Ultralight, Mifare DESFire" & vbCrLf & "Device=<unknown>"

' Reader, ATR, card type, serial-number length, serial number.
readers = Array( _
    Array("Virtual PCD 00 00", "3B 8F 80 01 80 4F 0C A0 00 00 03 06 03 00 01 00 00 00 00 6A", 1, 0, "CF1E2D3C"), _
    Array("Virtual PCD 00 01", "3B 81 80 01 80 80", 49, 7, "045A3B2C1D0E80"))
For i = 0 To UBound(readers)
    Set encoder = OpenOn(readers(i)(0))
    Check readers(i)(0) & " EncoderState", encoder.EncoderState, 3
    Check readers(i)(0) & " ATRString", encoder.ATRString, readers(i)(1)
    Check readers(i)(0) & " CardType", encoder.CardType, readers(i)(2)
    Check readers(i)(0) & " SerialNumberLength", encoder.SerialNumberLength, readers(i)(3)
    serial = ""
    Check readers(i)(0) & " ReadSerialNumber", encoder.ReadSerialNumber(serial), 0
    Check readers(i)(0) & " serial", serial, readers(i)(4)
    Check readers(i)(0) & " CloseEncoder", encoder.CloseEncoder(), 0
    Check readers(i)(0) & " closed", encoder.EncoderState, 1
Next

Set encoder = OpenOn("Virtual PCD 00 02")
Check "empty reader EncoderState", encoder.EncoderState, 2
Check "no error after the state", encoder.LastError.Number, 0
Check "GetResponseText", encoder.GetResponseText("6982", ""), "[Checking error]  Command not allowed, security status not satisfied"

Finish "identity"
