' Configure's real window (twn4-configure.exe, named by the environment) under
' a private Xvfb, where scripts/test-windows.sh plays the person with xdotool:
' the first call opens the test dialog with Alt+T, closes it with Escape and
' then the configuration dialog with Escape; the second, in French, moves to
' the next reader with Down and takes it with Return.

On Error Resume Next
Dim encoder
Set encoder = OpenOn("Virtual PCD 00 00")

Function Device()
    Device = Mid(encoder.Parameters, InStrRev(encoder.Parameters, "Device=") + 7)
End Function

Check "Escape", encoder.Configure("english"), 1
CheckError "Escape", encoder, 0, "", "Configure", "", ""
Check "Escape keeps the reader", Device(), "Virtual PCD 00 00"
Check "Return", encoder.Configure("francais"), 0
CheckError "Return", encoder, 0, "", "Configure", "", ""
Check "Return takes the reader", Device(), "Virtual PCD 00 01"
Finish "configure_window"
