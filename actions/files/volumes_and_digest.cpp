#include "actions/files/volumes_and_digest.h"

#include "windows_api.h"

namespace {

constexpr DWORD kBufferCharacters = 260;

ZelContainer RowOf(const ZelString& drive, UINT driveType, const WCHAR* label) {
  ZelString volumeName;
  volumeName.SetToTCHAR(label);

  ZelContainer row;
  row.SetString("Name", drive, kNoIndex);
  row.SetInt32("DriveType", static_cast<int32_t>(driveType), kNoIndex);
  row.SetString("VolumeName", volumeName, kNoIndex);
  return row;
}

}  // namespace

ResultCode CoreUtilsGetFileSystems(ZelContainer* params) {
  uint32_t row = 0;
  for (char letter = 'C'; letter <= 'Z'; ++letter) {
    ZelString root;
    root.Append(letter, 1);
    root.Append(ZelString(":\\"), 1);

    const UINT type = GetDriveTypeW(root.GetTCHAR());
    if (type == DRIVE_UNKNOWN || type == DRIVE_NO_ROOT_DIR) continue;

    // A drive without a medium has no label: the row is written all the same.
    WCHAR label[kBufferCharacters] = {};
    WCHAR fileSystem[kBufferCharacters] = {};
    GetVolumeInformationW(root.GetTCHAR(), label, kBufferCharacters, nullptr, nullptr, nullptr,
                          fileSystem, kBufferCharacters);

    root.Remove(2, 1);
    params->SetContainer(kValues, RowOf(root, type, label), row);
    ++row;
  }
  return kSuccess;
}

ResultCode CoreUtilsFileMD5(ZelContainer* params) {
  const ZelString path = ReadString(*params, "FilePath");
  params->SetString("FileChecksum", FileMd5(path), kNoIndex);
  return kSuccess;
}
