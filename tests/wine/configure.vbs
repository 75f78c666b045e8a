' Configure's child process on Windows, with fake_dialog.exe standing in for
' the window as twn4-configure.exe beside the test server (where Configure
' looks when the environment names no program): what it finds there, what
' reaches the program through its pipes, and the record for each way the
' conversation ends. TEST_DIR is the server's folder (scripts/test-windows.sh
' sets it; a script cannot set the environment under Wine).

On Error Resume Next
Dim files, folder, program, encoder, cases, c, log
Set files = CreateObject("Scripting.FileSystemObject")
folder = CreateObject("WScript.Shell").Environment("Process")("TEST_DIR")
program = folder & "twn4-configure.exe"
Const kUnavailable = &H90010F07

' Puts `kind` where the program belongs: the fake, nothing, a folder or a text file.
Sub Place(kind)
    If files.FolderExists(program) Then files.DeleteFolder program
    If files.FileExists(program) Then files.DeleteFile program
    If kind = "fake" Then files.CopyFile folder & "fake_dialog.exe", program
    If kind = "folder" Then files.CreateFolder program
    If kind = "text" Then files.CreateTextFile(program).Write "not a program"
End Sub

' Runs Configure over `kind` told `actions`, and checks the result, the
' record and the reader Parameters names afterwards.
Sub Run(label, kind, actions, result, number, rdrRetCode, device)
    Dim description, rdrCommand
    Place kind
    If files.FileExists(folder & "fake_dialog.log") Then files.DeleteFile folder & "fake_dialog.log"
    files.CreateTextFile(folder & "fake_dialog.actions").Write actions
    Check label & " result", encoder.Configure("english"), result
    description = ""
    rdrCommand = ""
    If number <> 0 Then description = "Configuration dialog unavailable"
    If number <> 0 Then rdrCommand = program
    CheckError label, encoder, number, description, "Configure", rdrCommand, rdrRetCode
    Check label & " device", Mid(encoder.Parameters, InStrRev(encoder.Parameters, "Device=") + 7), device
    encoder.Parameters = "Device=Virtual PCD 00 00"
End Sub

Set encoder = OpenOn("Virtual PCD 00 00")
cases = Array( _
    Array("ok", "fake", "say:ok\tVirtual PCD 00 02", 0, 0, "", "Virtual PCD 00 02"), _
    Array("ok without a reader", "fake", "say:ok\t", 0, 0, "", "Virtual PCD 00 00"), _
    Array("cancel", "fake", "say:cancel", 1, 0, "", "Virtual PCD 00 00"), _
    Array("no answer", "fake", "exit:0", 2, kUnavailable, "The dialog program ended without an answer", "Virtual PCD 00 00"), _
    Array("status", "fake", "exit:3", 2, kUnavailable, "The dialog program ended with status 3", "Virtual PCD 00 00"), _
    Array("error line", "fake", "say:error\tNo display;exit:2", 2, kUnavailable, "No display", "Virtual PCD 00 00"), _
    Array("missing", "none", "", 2, kUnavailable, "The dialog program is not installed", "Virtual PCD 00 00"), _
    Array("folder", "folder", "", 2, kUnavailable, "Cannot run the dialog program: it is a folder", "Virtual PCD 00 00"))
For Each c In cases
    Run c(0), c(1), c(2), c(3), c(4), c(5), c(6)
Next

' A file that is no program: Windows' own reason follows the common words.
Place "text"
Check "not a program", encoder.Configure("english"), 2
Check "not a program RdrRetCode", Left(encoder.LastError.RdrRetCode, 31), "Cannot run the dialog program: "

' Both ways through the pipes: the setup, and a test of a reader answered
' while the program waits.
Run "test", "fake", "say:test\tVirtual PCD 00 01;read;say:cancel", 1, 0, "", "Virtual PCD 00 00"
Set log = files.OpenTextFile(folder & "fake_dialog.log", 1)
Check "lines through the pipes", Replace(log.ReadAll, vbLf, "|"), Replace("language\ten|reader\tVirtual PCD 00 00|" & _
    "reader\tVirtual PCD 00 01|reader\tVirtual PCD 00 02|current\tVirtual PCD 00 00|show|" & _
    "probe\tready\t3B 81 80 01 80 80\t49\t045A3B2C1D0E80\t|", "\t", vbTab)
log.Close
Place "none"
Finish "configure"
