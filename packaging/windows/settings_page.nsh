; The page that asks what the first settings say. An agent that has settings keeps them.

Var NameField
Var MasterField
Var SecretField
Var AuthorityField

!macro Field TOP LABEL KIND VALUE CONTROL
  ${NSD_CreateLabel} 0 ${TOP}u 32% 10u "${LABEL}"
  Pop $0
  ${NSD_Create${KIND}} 34% ${TOP}u 66% 12u "${VALUE}"
  Pop ${CONTROL}
!macroend

Function ShowSettingsPage
  ${If} ${FileExists} "$Home\config\zelagent.ini"
    Abort
  ${EndIf}
  !insertmacro MUI_HEADER_TEXT "Settings" "What this agent is called and which fleet it belongs to."
  nsDialogs::Create 1018
  Pop $0
  ${If} $AgentName == ""
    ReadEnvStr $AgentName "COMPUTERNAME"
  ${EndIf}
  !insertmacro Field 0 "&Name of this agent" Text $AgentName $NameField
  !insertmacro Field 20 "&Master (host or host:port)" Text $Master $MasterField
  !insertmacro Field 40 "&Fleet secret" Password $Secret $SecretField
  !insertmacro Field 60 "Fleet's &authority (PEM file)" Text $Authority $AuthorityField
  ${NSD_CreateLabel} 0 84u 100% 40u "Without a fleet leave the last three empty. Everything can be \
changed later in $Home\config\zelagent.ini."
  Pop $0
  nsDialogs::Show
FunctionEnd

Function LeaveSettingsPage
  ${NSD_GetText} $NameField $AgentName
  ${NSD_GetText} $MasterField $Master
  ${NSD_GetText} $SecretField $Secret
  ${NSD_GetText} $AuthorityField $Authority
  StrLen $0 $Secret
  ${If} $0 > 0
  ${AndIf} $0 < 16
    MessageBox MB_ICONEXCLAMATION "A fleet secret has 16 characters or more."
    Abort
  ${EndIf}
  ${If} $Authority != ""
  ${AndIfNot} ${FileExists} $Authority
    MessageBox MB_ICONEXCLAMATION "There is no file $Authority."
    Abort
  ${EndIf}
  StrCpy $0 "$AgentName$Master$Authority"
  ${WordFind} $0 '"' "E+1{" $1
  ${IfNot} ${Errors}
    MessageBox MB_ICONEXCLAMATION "Quotation marks cannot be used here."
    Abort
  ${EndIf}
FunctionEnd
