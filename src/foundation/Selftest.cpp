#include <usermanagement/Export.h>

extern "C" void tvc_usermanagement_private_selftest() {}
