#pragma once

/// @file
/// One include for whoever works with schedulers: the scheduler, its two kinds, and the types of
/// what they report.

#include "Brelo/TaskGroup.h"
#include "Brelo/TaskSchedulerBase.h"
#include "Brelo/TaskSchedulerHistory.h"
#include "Brelo/TaskSchedulerPrintContext.h"
#include "Brelo/TaskSchedulerQueueStats.h"
#include "Brelo/TaskSchedulerRoot.h"
#include "Brelo/TaskSchedulerSnapshot.h"
#include "Brelo/TaskStat.h"
