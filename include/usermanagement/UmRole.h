// UmRole lives with the rest of the access-model values in UmGroup.h.
#pragma once

#include <usermanagement/UmGroup.h>
