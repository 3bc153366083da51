#pragma once

#include "Brelo/Mappings.h"
#include "Brelo/UtilFiles.h"
#include "Brelo/UtilPaths.h"
#include "Brelo/UtilProcess.h"
#include "Brelo/UtilSelf.h"
#include "Brelo/UtilSockets.h"
#include "Brelo/UtilText.h"

/// The system helpers, all of `Brelo::Util`, in one include.
