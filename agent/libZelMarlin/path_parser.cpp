#include "libZel/path.h"
#include "libZelMarlin.h"

void PathParser::LoadPath(const ZelString& path) {
  SplitPath(path, &drive_, &directory_, &name_, &extension_);
}
