// The inventory of applications: what is taken names a file, and comes back from an inventory that
// is written from it.

#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZelCore/application_inventory.h"
#include "tests/fuzz/require.h"

namespace {

std::string Written(const InventoryText& inventory) {
  std::string text;
  for (const KnownApplication& application : inventory.applications) {
    text += "[" + application.name + "]\nfile=" + application.file + "\n";
    if (!application.publisher.empty()) text += "publisher=" + application.publisher + "\n";
    if (!application.version.empty()) text += "version=" + application.version + "\n";
    std::string sizes;
    for (const uint64_t size : application.sizes)
      sizes += (sizes.empty() ? "" : ",") + std::to_string(size);
    if (!sizes.empty()) text += "size=" + sizes + "\n";
  }
  return text;
}

bool IsSame(const KnownApplication& a, const KnownApplication& b) {
  return a.name == b.name && a.file == b.file && a.sizes == b.sizes && a.publisher == b.publisher &&
         a.version == b.version;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const InventoryText first = ParseInventory({reinterpret_cast<const char*>(data), size});
  for (const KnownApplication& application : first.applications) {
    Require(!application.name.empty() && !application.file.empty());
  }
  for (const std::string& warning : first.warnings) Require(!warning.empty());

  const InventoryText second = ParseInventory(Written(first));
  Require(second.warnings.empty());
  Require(second.applications.size() == first.applications.size());
  for (size_t i = 0; i < first.applications.size(); ++i)
    Require(IsSame(first.applications[i], second.applications[i]));
  return 0;
}
