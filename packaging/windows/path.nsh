; The machine's PATH, with one directory more or less. The value is changed in memory of the system's
; own: NSIS's strings end after 1023 characters, and a PATH that is longer would lose its end.

!define PATH_BYTES 131072
!define PATH_KEY "SYSTEM\CurrentControlSet\Control\Session Manager\Environment"
!define LOCAL_MACHINE 0xFFFFFFFF80000002
!define QUERY_AND_SET_64 0x0103

!macro PathFunctions PREFIX

; $0 the memory, $1 the key, $2 the type of the value, $3 0 when it was read
Function ${PREFIX}ReadPath
  System::Alloc ${PATH_BYTES}
  Pop $0
  System::Call 'advapi32::RegOpenKeyExW(p ${LOCAL_MACHINE}, w "${PATH_KEY}", i 0, \
    i ${QUERY_AND_SET_64}, *p .r1) i .r3'
  ${If} $3 = 0
    IntOp $4 ${PATH_BYTES} - 4096
    System::Call 'advapi32::RegQueryValueExW(p r1, w "Path", p 0, *i .r2, p r0, *i r4) i .r3'
  ${EndIf}
FunctionEnd

Function ${PREFIX}ClosePath
  System::Call 'advapi32::RegCloseKey(p r1)'
  System::Free $0
FunctionEnd

; Writes what is in the memory and tells the running programs.
Function ${PREFIX}WritePath
  System::Call 'kernel32::lstrlenW(p r0) i .r4'
  IntOp $4 $4 + 1
  IntOp $4 $4 * 2
  System::Call 'advapi32::RegSetValueExW(p r1, w "Path", i 0, i r2, p r0, i r4) i .r3'
  SendMessage ${HWND_BROADCAST} ${WM_SETTINGCHANGE} 0 "STR:Environment" /TIMEOUT=2000
FunctionEnd

; $5 where ";$INSTDIR" stands as a whole entry, 0 when it does not; $6 its length in bytes
Function ${PREFIX}FindInPath
  StrLen $6 ";$INSTDIR"
  IntOp $6 $6 * 2
  System::Call 'shlwapi::StrStrIW(p r0, w ";$INSTDIR") p .r5'
  ${If} $5 P<> 0
    IntPtrOp $7 $5 + $6
    System::Call '*$7(&i2 .r8)'
    ${If} $8 <> 0
    ${AndIf} $8 <> 59
      StrCpy $5 0
    ${EndIf}
  ${EndIf}
FunctionEnd

!macroend

!insertmacro PathFunctions ""
!insertmacro PathFunctions "un."

Function AddToPath
  Call ReadPath
  ${If} $3 = 0
    Call FindInPath
    ${If} $5 P= 0
      System::Call 'kernel32::lstrcatW(p r0, w ";$INSTDIR")'
      Call WritePath
    ${EndIf}
  ${EndIf}
  Call ClosePath
FunctionEnd

Function un.RemoveFromPath
  Call un.ReadPath
  ${If} $3 = 0
    Call un.FindInPath
    ${If} $5 P<> 0
      IntPtrOp $7 $5 + $6
      System::Call 'kernel32::lstrlenW(p r7) i .r8'
      IntOp $8 $8 + 1
      IntOp $8 $8 * 2
      System::Call 'kernel32::RtlMoveMemory(p r5, p r7, p r8)'
      Call un.WritePath
    ${EndIf}
  ${EndIf}
  Call un.ClosePath
FunctionEnd
