#pragma once

namespace smb {

class Connection {};

}  // namespace smb
