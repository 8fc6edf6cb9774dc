// What browsers load: the files of the page, and what is made for it on request.
#pragma once

#include "tools/board/Http.h"

// /lamp/... and /wall... are one page, which knows by its address what to show. /manifest makes
// such a page an app of its own, /qr.svg shows its address to phones. Throws std::invalid_argument.
HttpResponse ServePage(const HttpRequest& request);
