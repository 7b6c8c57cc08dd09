#include "agent/libZel/smb/connection.h"
