// The page, its figures, and the metrics of all hosts and streams.
#ifndef TOOLS_PAGE_SITE_H
#define TOOLS_PAGE_SITE_H

#include "page/History.h"
#include "page/HttpServer.h"
#include "page/Snapshot.h"

// Thread safety: any thread asks.
HttpAnswer answerFrom(const Board& board, const History& history, const HttpRequest& request);

#endif
