#include "libZel/http.h"

struct HttpClient::Implementation {};
HttpClient::HttpClient(uint32_t, uint32_t) {}
HttpClient::~HttpClient() = default;
void HttpClient::SetDebugContext(ZelDebugContext*) {}
void HttpClient::SetAuthentification(const ZelString&, const ZelString&) {}
void HttpClient::EnableSsl(SslContext*) {}
void HttpClient::EnablePac(PacContext*) {}
int HttpClient::SendAndRecv(const ZelString*, const ZelString&, HttpMessage&, HttpMessage&,
                            uint32_t, int, NetworkSocket*) {
  return 99;
}
