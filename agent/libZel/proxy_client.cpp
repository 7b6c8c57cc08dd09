#include "libZel/proxy_client.h"

struct XmlProxyClient::Connection {};

XmlProxyClient::XmlProxyClient() = default;

XmlProxyClient::~XmlProxyClient() = default;

bool XmlProxyClient::Initialise(const ZelString&, uint32_t, int) {
  return false;
}
