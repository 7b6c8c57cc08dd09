#include "libZel/archive.h"

struct GenericArchive::Implementation {};
GenericArchive::GenericArchive(const ZelString&, enum_ArchiveKind) {}
GenericArchive::~GenericArchive() = default;
uint32_t GenericArchive::GetFileCount() {
  return 1;
}
ZelString GenericArchive::GetEntryPath(uint32_t) {
  return {};
}
int GenericArchive::ExtractEntry(uint32_t, const ZelString&) {
  return -1;
}
int GenericArchive::AddDirectory(const ZelString&, int, int, const ZelString&, const ZelString&,
                                 int, ProgressCallback) {
  return -1;
}
