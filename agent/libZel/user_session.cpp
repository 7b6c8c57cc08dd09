#include "libZel/user_session.h"

bool IsUserLogged() {
  return false;
}
bool ProxyUtils::IsUserAbsent(const ZelString&) {
  return false;
}
void SysTray::ExecuteAsLoggedUser(const ZelString&) {}
