' Run after unregistration: creating the class must fail.
Option Explicit
Dim encoder
On Error Resume Next
Set encoder = CreateObject("ElatecTWN4.Encoder")
If Err.Number = 0 Then
    WScript.Echo "FAIL the class is still registered"
    WScript.Quit 1
End If
WScript.Echo "unregistered: CreateObject fails with " & Err.Number
WScript.Quit 0
