#pragma once

#include "libZel/string.h"

/// Internet addresses of the forms http://... and https://... (RFC 3986), taken apart.
class UrlParseInet {
 public:
  /// Takes `url` apart: 1, or 0 (and every part is empty) when it is no such URL. Percent-encoding
  /// in user and password is undone.
  int LoadUrl(const ZelString& url);
  const ZelString& GetUser() const { return user_; }
  const ZelString& GetPassword() const { return password_; }
  /// Without the brackets of an IPv6 address.
  const ZelString& GetHost() const { return host_; }

  /// 1 when `text` is an http or https URL with a host (the scheme in any case), else 0.
  static int CanHandleUrl(const ZelString& text);

 private:
  ZelString user_;
  ZelString password_;
  ZelString host_;
};
