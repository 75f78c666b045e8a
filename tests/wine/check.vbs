' The start of every family script (scripts/test-windows.sh puts it in
' front, since a script cannot include another): counting checks, the final
' line, and the exit status that carries the number of failures (cscript
' itself exits 0 whatever a script does).
Option Explicit
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
