// What the mechanism's own files share.
#pragma once

#include "security/mechanism.h"

// The callbacks that are set; missing ones are null.
const _GSS_Callbacks& gss_callbacks();
