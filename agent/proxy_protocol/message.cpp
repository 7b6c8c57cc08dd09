namespace proxy_protocol {}
