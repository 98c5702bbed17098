#pragma once

/// Everything an application in C++ needs. Applications in C include <ravelin/ravelin.h>.

#include "ravelin/defaults.h"
#include "ravelin/error.h"
#include "ravelin/main_queue.h"
#include "ravelin/ravelin_operation.h"
#include "ravelin/status.h"
#include "ravelin/text_error.h"
#include "ravelin/url.h"
