; The installer for Windows. packaging/windows/build calls makensis with these defines:
;   VERSION      three numbers
;   OUTPUT       the file to make
;   STAGE        the directory whose files are installed
;   LIST         a script of lines that delete them
;   KILOBYTES    how much that is
;   COMPRESSION  as SetCompressor takes it
; docs/install.md tells what the installer does and which options it takes.

Unicode true
Target amd64-unicode
SetCompressor ${COMPRESSION}

!include "MUI2.nsh"
!include "LogicLib.nsh"
!include "FileFunc.nsh"
!include "WordFunc.nsh"
!include "WinVer.nsh"
!include "nsDialogs.nsh"

!define PRODUCT "ZelAgent"
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\ZelAgent"
!define SERVICE_KEY "SYSTEM\CurrentControlSet\Services\zelagent"
!define LONGEST_COMMAND_LINE 1000

; What a caller is told; 1 is NSIS's own: the person cancelled.
!define BAD_VALUE 2
!define UNFIT_MACHINE 3
!define NEWER_INSTALLED 4
!define FILES_FAILED 5
!define SERVICE_FAILED 6

Name "${PRODUCT} ${VERSION}"
OutFile "${OUTPUT}"
InstallDir "$PROGRAMFILES64\${PRODUCT}"
InstallDirRegKey HKLM "${UNINSTALL_KEY}" "InstallLocation"
RequestExecutionLevel admin
ManifestDPIAware true
ShowInstDetails show
ShowUninstDetails show
SetOverwrite try
BrandingText " "

VIProductVersion "${VERSION}.0"
VIAddVersionKey "ProductName" "${PRODUCT}"
VIAddVersionKey "FileDescription" "Installer of the endpoint agent"
VIAddVersionKey "FileVersion" "${VERSION}.0"
VIAddVersionKey "ProductVersion" "${VERSION}"
VIAddVersionKey "LegalCopyright" "MIT licence"

Var Master
Var Secret
Var SecretFile
Var Authority
Var AgentName
Var Port
Var AdminUser
Var AdminPasswordFile
Var LogFile
Var MayDowngrade

Var Home
Var Intention    ; what the first page says
Var Installed    ; the version that is installed; empty: none
Var Stage        ; where the new files wait, beside their place
Var Old          ; where those before them wait
Var Arguments    ; of "zelagent config init"
Var Status       ; of the last program
Var Output
Var MadeHome     ; 1: it was missing; 2: it is the agent's own
Var MadeService
Var MovedOld

!define MUI_ABORTWARNING
!define MUI_WELCOMEPAGE_TITLE "${PRODUCT} ${VERSION}"
!define MUI_WELCOMEPAGE_TEXT "$Intention"
!insertmacro MUI_PAGE_WELCOME
!define MUI_PAGE_CUSTOMFUNCTION_PRE SkipWhenInstalled
!insertmacro MUI_PAGE_DIRECTORY
Page custom ShowSettingsPage LeaveSettingsPage
!insertmacro MUI_PAGE_INSTFILES
!define MUI_FINISHPAGE_TEXT "The agent runs. Its command line is zelctl, in a new console.$\r$\n$\r$\n\
Console users are added in a console of an administrator:$\r$\n\
zelagent user add LOGIN --role administrator"
!insertmacro MUI_PAGE_FINISH
!define MUI_UNCONFIRMPAGE_TEXT_TOP "The agent will be stopped and its programs removed. Its settings, \
data and logs stay, for a later installation. Run uninstall.exe with /PURGE to remove them too."
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE "English"

; Runs zelagent.exe of a directory; leaves $Status and $Output.
!macro Zelagent DIRECTORY ARGUMENTS
  nsExec::ExecToStack '"${DIRECTORY}\zelagent.exe" ${ARGUMENTS}'
  Pop $Status
  Pop $Output
  ${If} $Output != ""
    Push $Output
    Call ${UN}Say
  ${EndIf}
!macroend
!define Zelagent "!insertmacro Zelagent"

!macro GiveUp STATUS TEXT
  Push "${TEXT}"
  Push ${STATUS}
  Call ${UN}GiveUp
!macroend
!define GiveUp "!insertmacro GiveUp"

!macro SharedFunctions PREFIX
; A line for the window and the log file.
Function ${PREFIX}Say
  Exch $0
  Push $1
  DetailPrint $0
  ${If} $LogFile != ""
    ClearErrors
    FileOpen $1 $LogFile a
    ${IfNot} ${Errors}
      FileSeek $1 0 END
      FileWrite $1 "$0$\r$\n"
      FileClose $1
    ${EndIf}
  ${EndIf}
  Pop $1
  Pop $0
FunctionEnd

Function ${PREFIX}GiveUp
  Pop $0
  Pop $1
  Push $1
  Call ${PREFIX}Say
  SetErrorLevel $0
  ${IfNot} ${Silent}
    MessageBox MB_ICONSTOP "$1"
  ${EndIf}
  Quit
FunctionEnd

Function ${PREFIX}RequireAdministrator
  UserInfo::GetAccountType
  Pop $0
  ${If} $0 != "Admin"
    ${GiveUp} ${UNFIT_MACHINE} "Only an administrator can do this."
  ${EndIf}
FunctionEnd
!macroend

!define UN ""
!insertmacro SharedFunctions ""
!undef UN
!define UN "un."
!insertmacro SharedFunctions "un."
!undef UN
!define UN ""

!include "${__FILEDIR__}/path.nsh"
!include "${__FILEDIR__}/options.nsh"
!include "${__FILEDIR__}/settings_page.nsh"

Function .onInit
  SetRegView 64
  SetShellVarContext all
  StrCpy $Home "$APPDATA\${PRODUCT}"
  Call TakeOptions
  Call RequireAdministrator
  ${IfNot} ${AtLeastWin10}
    ${GiveUp} ${UNFIT_MACHINE} "${PRODUCT} needs Windows 10 or later."
  ${EndIf}
  System::Call 'kernel32::CreateMutexW(p 0, i 1, w "Global\ZelAgentSetup") p .r1 ?e'
  Pop $0
  ${If} $0 = 183
    ${GiveUp} ${UNFIT_MACHINE} "Another installation of ${PRODUCT} is under way."
  ${EndIf}
  Call CompareWithInstalled
FunctionEnd

Function CompareWithInstalled
  StrCpy $Intention "The endpoint agent will be installed on this machine, as a service of the system."
  ReadRegStr $Installed HKLM "${UNINSTALL_KEY}" "DisplayVersion"
  ${If} $Installed == ""
    Return
  ${EndIf}
  StrCpy $Intention "Version $Installed in $INSTDIR will be replaced. Settings and data stay."
  ReadRegStr $0 HKLM "${UNINSTALL_KEY}" "InstallLocation"
  ${If} $0 != $INSTDIR
    ${GiveUp} ${BAD_VALUE} "${PRODUCT} is installed in $0. Remove it first to have it in $INSTDIR."
  ${EndIf}
  ${VersionCompare} $Installed ${VERSION} $0
  ${If} $0 = 1
  ${AndIf} $MayDowngrade == ""
    ${GiveUp} ${NEWER_INSTALLED} "Version $Installed is installed, which is newer than ${VERSION}. \
With /DOWNGRADE it is replaced all the same."
  ${EndIf}
FunctionEnd

Function SkipWhenInstalled
  ${If} $Installed != ""
    Abort
  ${EndIf}
FunctionEnd

Section
  AddSize ${KILOBYTES}
  StrCpy $Stage "$INSTDIR.new"
  StrCpy $Old "$INSTDIR.old"
  Call PutRightWhatWasBroken
  Call RefuseForeignDirectory
  Call StageFiles
  Call TryValues
  Call StopAgent
  Call PutInPlace
  Call CarryModulesOver
  Call StartAgent
  RMDir /r $Old
  Call Register
  Push "${PRODUCT} ${VERSION} is installed in $INSTDIR."
  Call Say
SectionEnd

; An installation that was cut off, by a loss of power for example.
Function PutRightWhatWasBroken
  ${If} ${FileExists} "$Old\zelagent.exe"
  ${AndIfNot} ${FileExists} "$INSTDIR\zelagent.exe"
    Rename $Old $INSTDIR
  ${EndIf}
  RMDir /r $Stage
FunctionEnd

; The directory is replaced as a whole, so there must be nothing in it that is somebody else's.
Function RefuseForeignDirectory
  ${DirState} $INSTDIR $0
  ${If} $0 = 1
  ${AndIf} $Installed == ""
    ${GiveUp} ${BAD_VALUE} "The directory $INSTDIR is not empty."
  ${EndIf}
FunctionEnd

; The stage's programs run with an administrator's rights before the agent can look at anything, and
; what is made in other places than Program Files is often everybody's to change. So the directory is
; made for administrators, others may run what is in it, and one that stands there is not taken.
Function MakeStage
  ${GetParent} $INSTDIR $0
  CreateDirectory $0
  System::Call 'advapi32::ConvertStringSecurityDescriptorToSecurityDescriptorW( \
    w "O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;GRGX;;;BU)", i 1, *p .r1, p 0) i .r0'
  ${If} $0 <> 0
    ; SECURITY_ATTRIBUTES, as 64-bit programs have it.
    System::Call '*(l 24, p r1, l 0) p .r2'
    System::Call 'kernel32::CreateDirectoryW(w "$Stage", p r2) i .r0'
    System::Free $2
    System::Call 'kernel32::LocalFree(p r1)'
  ${EndIf}
  ${If} $0 = 0
    ${GiveUp} ${FILES_FAILED} "The directory $Stage cannot be made for administrators alone."
  ${EndIf}
FunctionEnd

Function StageFiles
  Call MakeStage
  ClearErrors
  SetOutPath $Stage
  File /r "${STAGE}/*.*"
  WriteUninstaller "$Stage\uninstall.exe"
  ; The current directory could not be renamed.
  SetOutPath $PLUGINSDIR
  ${If} ${Errors}
    RMDir /r $Stage
    ${GiveUp} ${FILES_FAILED} "The files cannot be written to $Stage."
  ${EndIf}
FunctionEnd

; Whether the agent takes the values, tried on a home that is thrown away: nothing is changed so far.
; It stands in the stage, which is safe where the agent may run at all; other people's temporary
; directories may not be.
Function TryValues
  Call MakeArguments
  ${Zelagent} $Stage 'config init --home="$Stage\trial" $Arguments'
  ${If} $Status == 0
  ${AndIf} $AdminUser != ""
    ${Zelagent} $Stage 'user add "$AdminUser" --home="$Stage\trial" --role=administrator \
      --password-file="$AdminPasswordFile"'
  ${EndIf}
  RMDir /r "$Stage\trial"
  ${If} $Status != 0
    RMDir /r $Stage
    ${GiveUp} ${BAD_VALUE} "Nothing was installed: $Output"
  ${EndIf}
FunctionEnd

Function StopAgent
  ${Zelagent} $Stage 'service stop --programs-of="$INSTDIR"'
  ${If} $Status != 0
    RMDir /r $Stage
    Call StartOld
    ${GiveUp} ${FILES_FAILED} "The agent cannot be stopped: $Output"
  ${EndIf}
FunctionEnd

; Starts what was there before; what comes of it is for the log.
Function StartOld
  ${If} $Installed != ""
    ${Zelagent} $INSTDIR 'service start'
  ${EndIf}
FunctionEnd

; From $0 to $1. Virus scanners and the like keep new files open for a moment.
Function RenameSoon
  StrCpy $2 0
  ${Do}
    ClearErrors
    Rename $0 $1
    ${IfNot} ${Errors}
      ${ExitDo}
    ${EndIf}
    Sleep 250
    IntOp $2 $2 + 1
  ${LoopUntil} $2 = 40
FunctionEnd

Function PutInPlace
  RMDir /r $Old
  RMDir $INSTDIR
  ${If} ${FileExists} "$INSTDIR\*.*"
    StrCpy $0 $INSTDIR
    StrCpy $1 $Old
    Call RenameSoon
    ${If} ${Errors}
      RMDir /r $Stage
      Call StartOld
      ${GiveUp} ${FILES_FAILED} "Another program keeps files in $INSTDIR open."
    ${EndIf}
    StrCpy $MovedOld 1
  ${EndIf}
  StrCpy $0 $Stage
  StrCpy $1 $INSTDIR
  Call RenameSoon
  ${If} ${Errors}
    RMDir /r $Stage
    Call BringBack
    ${GiveUp} ${FILES_FAILED} "The files cannot be put into $INSTDIR."
  ${EndIf}
FunctionEnd

; Modules that somebody else has put there. installed.ini names those that were installed.
Function CarryModulesOver
  ${If} $MovedOld == ""
    Return
  ${EndIf}
  FindFirst $0 $1 "$Old\modules\*.dll"
  ${DoWhile} $1 != ""
    ReadINIStr $2 "$Old\installed.ini" "modules" $1
    ${If} $2 == ""
    ${AndIfNot} ${FileExists} "$INSTDIR\modules\$1"
      CopyFiles /SILENT "$Old\modules\$1" "$INSTDIR\modules\$1"
      Push "The module $1 is kept."
      Call Say
    ${EndIf}
    FindNext $0 $1
  ${Loop}
  FindClose $0
FunctionEnd

Function StartAgent
  ${IfNot} ${FileExists} "$Home\*.*"
    StrCpy $MadeHome 1
  ${EndIf}
  ${Zelagent} $INSTDIR 'config init --home="$Home" $Arguments'
  ${If} $Status == 0
  ${AndIf} $MadeHome == 1
    StrCpy $MadeHome 2
  ${EndIf}
  ${If} $Status == 0
  ${AndIf} $AdminUser != ""
    ${Zelagent} $INSTDIR 'user add "$AdminUser" --keep --home="$Home" --role=administrator \
      --password-file="$AdminPasswordFile"'
  ${EndIf}
  ${If} $Status == 0
    Call InstallService
  ${EndIf}
  ${If} $Status == 0
    Call StartService
  ${EndIf}
  ${If} $Status != 0
    StrCpy $3 $Output
    Call TakeBack
    ${GiveUp} ${SERVICE_FAILED} "The agent does not start: $3"
  ${EndIf}
FunctionEnd

Function InstallService
  ReadRegStr $0 HKLM "${SERVICE_KEY}" "ImagePath"
  ${If} $Installed == ""
  ${OrIf} $0 == ""
    ${Zelagent} $INSTDIR 'service install --home="$Home"'
    ${If} $Status == 0
      StrCpy $MadeService 1
    ${EndIf}
  ${EndIf}
FunctionEnd

; One that was disabled stays so.
Function StartService
  ReadRegDWORD $0 HKLM "${SERVICE_KEY}" "Start"
  ${If} $0 = 4
    Push "The service is disabled and was not started."
    Call Say
    Return
  ${EndIf}
  ${Zelagent} $INSTDIR 'service start'
FunctionEnd

; Everything as it was before.
Function TakeBack
  ${Zelagent} $INSTDIR 'service stop --programs-of="$INSTDIR"'
  ${If} $MadeService == 1
    ${Zelagent} $INSTDIR 'service remove'
  ${EndIf}
  ${If} $LogFile != ""
    CopyFiles /SILENT "$Home\log\zelagent.log" "$LogFile.agent"
  ${EndIf}
  RMDir /r $INSTDIR
  Call BringBack
  ${If} $MadeHome == 2
    RMDir /r $Home
  ${ElseIf} $MadeHome == 1
    ; The agent has refused it: somebody else may have put it there, with links to other files.
    RMDir "$Home\config"
    RMDir $Home
  ${EndIf}
FunctionEnd

Function BringBack
  ${If} $MovedOld == 1
    StrCpy $0 $Old
    StrCpy $1 $INSTDIR
    Call RenameSoon
    Call StartOld
  ${EndIf}
FunctionEnd

Function Register
  ${GetSize} $INSTDIR "/S=0K" $0 $1 $2
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayName" "${PRODUCT}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\uninstall.exe"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "Publisher" "ZelCoreUtils"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\uninstall.exe"'
  WriteRegStr HKLM "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "EstimatedSize" $0
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoModify" 1
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoRepair" 1
  Call AddToPath
FunctionEnd

!undef UN
!define UN "un."

Function un.onInit
  SetRegView 64
  SetShellVarContext all
  StrCpy $Home "$APPDATA\${PRODUCT}"
  Call un.RequireAdministrator
FunctionEnd

Section "Uninstall"
  ${Zelagent} $INSTDIR 'service stop --programs-of="$INSTDIR"'
  ${If} $Status == 0
    ReadRegStr $0 HKLM "${SERVICE_KEY}" "ImagePath"
    ${If} $0 != ""
      ${Zelagent} $INSTDIR 'service remove'
    ${EndIf}
  ${EndIf}
  ${If} $Status != 0
    ${GiveUp} ${SERVICE_FAILED} "Nothing was removed: $Output"
  ${EndIf}

  Call un.RemoveFromPath
  SetOutPath $TEMP
  !include "${LIST}"
  Delete "$INSTDIR\uninstall.exe"
  RMDir /r "$INSTDIR.old"
  RMDir $INSTDIR
  DeleteRegKey HKLM "${UNINSTALL_KEY}"

  ${GetParameters} $0
  ClearErrors
  ${GetOptions} $0 "/PURGE" $1
  ${IfNot} ${Errors}
    RMDir /r $Home
  ${EndIf}
SectionEnd
