// Base64 of RFC 4648: standard alphabet, "=" padding, no line breaks.
// The decoder builds a shared lookup table on first use; base64_cleanup() releases it (it must
// not run while another thread decodes).  The decoder does not validate: characters outside
// the alphabet count as 0, and input whose length is not a multiple of 4 decodes to "".
#pragma once

#include <string>

#include <usermanagement/Export.h>

namespace systemutilities {

TVC_UM_EXPORT std::string base64_encode(const unsigned char* data, unsigned int length);
TVC_UM_EXPORT std::string base64_decode(const char* text, unsigned int length);
TVC_UM_EXPORT void base64_cleanup();

}  // namespace systemutilities
