#pragma once

#include "libZel/string.h"

/// Internet addresses of the forms http://... and https://... (RFC 3986).
class UrlParseInet {
 public:
  /// 1 when `text` is an http or https URL with a host (the scheme in any case), else 0.
  static int CanHandleUrl(const ZelString& text);
};
