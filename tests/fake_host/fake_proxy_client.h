#pragma once

#include <string>

#include "libZel/proxy_client.h"

struct XmlProxyClient::Connection {
  ZelString pipeName;
};

/// How the transcript shows a client: by what it is connected to.
std::string DescribeClient(const XmlProxyClient* client);
