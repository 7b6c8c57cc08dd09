; The installer's options. A misspelt one is refused: who installs silently would never hear of it.

; Takes the first word off $R0: $R1, without its quotes. $R2 is empty when there was none.
Function TakeWord
  StrCpy $R1 ""
  StrCpy $R2 ""
  StrCpy $R3 0
  ${Do}
    StrCpy $R4 $R0 1
    ${If} $R4 == ""
      ${ExitDo}
    ${EndIf}
    StrCpy $R0 $R0 "" 1
    ${If} $R4 == '"'
      IntOp $R3 $R3 ^ 1
      StrCpy $R2 1
    ${ElseIf} $R4 == " "
    ${AndIf} $R3 = 0
      ${If} $R2 != ""
        ${ExitDo}
      ${EndIf}
    ${Else}
      StrCpy $R1 "$R1$R4"
      StrCpy $R2 1
    ${EndIf}
  ${Loop}
FunctionEnd

; $R1 up to its first "=" becomes $R3, what follows $R4.
Function SplitWord
  StrCpy $R3 $R1
  StrCpy $R4 ""
  StrCpy $R5 0
  ${Do}
    StrCpy $R6 $R1 1 $R5
    ${If} $R6 == ""
      ${ExitDo}
    ${EndIf}
    ${If} $R6 == "="
      StrCpy $R3 $R1 $R5
      IntOp $R5 $R5 + 1
      StrCpy $R4 $R1 "" $R5
      ${ExitDo}
    ${EndIf}
    IntOp $R5 $R5 + 1
  ${Loop}
FunctionEnd

; $R4, a file that must be there, becomes a full path: the current directory changes later on.
Function FullPath
  ClearErrors
  GetFullPathName $R5 $R4
  ${If} ${Errors}
  ${OrIfNot} ${FileExists} $R5
    ${GiveUp} ${BAD_VALUE} "Nothing was installed: there is no file $R4 ($R3)."
  ${EndIf}
  StrCpy $R4 $R5
FunctionEnd

Function TakeOption
  ${Select} $R3
    ${Case3} "/S" "/NCRC" ""
    ${Case} "/MASTER"
      StrCpy $Master $R4
    ${Case} "/FLEETSECRET"
      StrCpy $Secret $R4
    ${Case} "/FLEETSECRETFILE"
      Call FullPath
      StrCpy $SecretFile $R4
    ${Case} "/CA"
      Call FullPath
      StrCpy $Authority $R4
    ${Case} "/NAME"
      StrCpy $AgentName $R4
    ${Case} "/PORT"
      StrCpy $Port $R4
    ${Case} "/ADMINUSER"
      StrCpy $AdminUser $R4
    ${Case} "/ADMINPASSWORDFILE"
      Call FullPath
      StrCpy $AdminPasswordFile $R4
    ${Case} "/LOG"
      ; The file need not be there.
      GetFullPathName $LogFile $R4
      ${If} $LogFile == ""
        StrCpy $LogFile $R4
      ${EndIf}
    ${Case} "/DOWNGRADE"
      StrCpy $MayDowngrade 1
    ${CaseElse}
      ${GiveUp} ${BAD_VALUE} "Nothing was installed: the option $R3 is not known."
  ${EndSelect}
FunctionEnd

Function TakeOptions
  ${GetParameters} $R0
  StrLen $R1 $R0
  ${If} $R1 > ${LONGEST_COMMAND_LINE}
    ${GiveUp} ${BAD_VALUE} "Nothing was installed: the command line is too long."
  ${EndIf}
  ${Do}
    Call TakeWord
    ${If} $R2 == ""
      ${ExitDo}
    ${EndIf}
    Call SplitWord
    Call TakeOption
  ${Loop}

  ${If} $Secret != ""
  ${AndIf} $SecretFile != ""
    ${GiveUp} ${BAD_VALUE} "Nothing was installed: there are two fleet secrets."
  ${EndIf}
  ${If} $AdminUser != ""
  ${AndIf} $AdminPasswordFile == ""
    ${GiveUp} ${BAD_VALUE} "Nothing was installed: /ADMINUSER needs /ADMINPASSWORDFILE."
  ${EndIf}
  ${If} $AdminUser == ""
  ${AndIf} $AdminPasswordFile != ""
    ${GiveUp} ${BAD_VALUE} "Nothing was installed: /ADMINPASSWORDFILE needs /ADMINUSER."
  ${EndIf}
FunctionEnd

; The secret goes to the agent in a file. A letter that the system's code page does not have would not
; arrive there.
Function WriteSecret
  FileOpen $0 "$PLUGINSDIR\secret" w
  FileWrite $0 $Secret
  FileClose $0
  FileOpen $0 "$PLUGINSDIR\secret" r
  FileRead $0 $1
  FileClose $0
  ${If} $1 S!= $Secret
    RMDir /r $Stage
    ${GiveUp} ${BAD_VALUE} "Nothing was installed: this fleet secret needs a file (/FLEETSECRETFILE)."
  ${EndIf}
  StrCpy $SecretFile "$PLUGINSDIR\secret"
FunctionEnd

!macro AddArgument NAME VALUE
  ${If} "${VALUE}" != ""
    StrCpy $Arguments '$Arguments --${NAME}="${VALUE}"'
  ${EndIf}
!macroend

Function MakeArguments
  StrCpy $Arguments ""
  InitPluginsDir
  ${If} $Secret != ""
    Call WriteSecret
  ${EndIf}
  !insertmacro AddArgument "name" $AgentName
  !insertmacro AddArgument "port" $Port
  !insertmacro AddArgument "master" $Master
  !insertmacro AddArgument "fleet-secret-file" $SecretFile
  !insertmacro AddArgument "ca" $Authority
FunctionEnd
