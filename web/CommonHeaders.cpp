#include "web/CommonHeaders.h"

#include <microhttpd.h>

namespace Web
{

namespace
{

constexpr char POLICY_OF_PAGE[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
    "connect-src 'self'; font-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'";
constexpr char POLICY_OF_DATA[] = "default-src 'none'; frame-ancestors 'none'; sandbox";

} // namespace

void addHeaders(MHD_Response* response, std::string const& type, bool isPage)
{
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, type.c_str());
  MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-cache");
  MHD_add_response_header(response, "Content-Security-Policy",
                          isPage ? POLICY_OF_PAGE : POLICY_OF_DATA);
  MHD_add_response_header(response, "X-Content-Type-Options", "nosniff");
  MHD_add_response_header(response, "X-Frame-Options", "DENY");
  MHD_add_response_header(response, "Referrer-Policy", "no-referrer");
  MHD_add_response_header(response, "Cross-Origin-Resource-Policy", "same-origin");
  MHD_add_response_header(response, "Cross-Origin-Opener-Policy", "same-origin");
}

} // namespace Web
