' Shared by the family scripts (read with ExecuteGlobal): counting checks,
' the final line, and the exit status that carries the number of failures
' (cscript itself exits 0 whatever a script does).
Dim failures, checks
failures = 0
checks = 0

Sub Check(label, got, expected)
    checks = checks + 1
    If VarType(got) = vbObject Or IsArray(got) Then
        failures = failures + 1
        WScript.Echo "FAIL " & label & ": got " & TypeName(got) & ", expected [" & expected & "]"
    ElseIf CStr(got) <> CStr(expected) Then
        failures = failures + 1
        WScript.Echo "FAIL " & label & ": got [" & got & "], expected [" & expected & "]"
    End If
End Sub

' The fields of LastError, one check each.
Sub CheckError(label, encoder, number, description, comFunction, rdrCommand, rdrRetCode)
    Dim e
    Set e = encoder.LastError
    Check label & " Number", e.Number, number
    Check label & " Description", e.Description, description
    Check label & " ComFunction", e.ComFunction, comFunction
    Check label & " RdrCommand", e.RdrCommand, rdrCommand
    Check label & " RdrRetCode", e.RdrRetCode, rdrRetCode
End Sub

' Hex text of a byte array as the component returns it (VT_ARRAY | VT_UI1).
Function HexBytes(bytes)
    Dim i, text
    text = ""
    For i = 1 To LenB(bytes)
        text = text & Right("0" & Hex(AscB(MidB(bytes, i, 1))), 2)
    Next
    HexBytes = text
End Function

Function OpenOn(device)
    Dim encoder
    Set encoder = CreateObject("ElatecTWN4.Encoder")
    encoder.Parameters = "Device=" & device
    Check "OpenEncoder on " & device, encoder.OpenEncoder(), 0
    Set OpenOn = encoder
End Function

Sub Finish(family)
    WScript.Echo family & ": " & checks & " checks, " & failures & " failed"
    WScript.Quit failures
End Sub
