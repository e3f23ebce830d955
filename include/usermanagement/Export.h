// The one export macro of the library: the library is built with hidden visibility, and
// every class or function that belongs to the public interface carries TVC_UM_EXPORT.
#pragma once

#if defined(TVC_USERMANAGEMENT_BUILDING)
#define TVC_UM_EXPORT __attribute__((visibility("default")))
#else
#define TVC_UM_EXPORT
#endif

extern "C" {
// Exported entry point with no behaviour; lets a host or packaging check verify that it can
// load the library and resolve a symbol from it.
TVC_UM_EXPORT void tvc_usermanagement_private_selftest();
}
