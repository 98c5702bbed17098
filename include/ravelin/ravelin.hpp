#pragma once

/// The whole C++ interface. The C interface is <ravelin/ravelin.h>.

#include "ravelin/async.h"
#include "ravelin/content_request.h"
#include "ravelin/error.h"
#include "ravelin/main_queue.h"
#include "ravelin/options.h"
#include "ravelin/ravelin_operation.h"
#include "ravelin/response.h"
#include "ravelin/status.h"
#include "ravelin/text.h"
#include "ravelin/text_error.h"
#include "ravelin/url.h"
