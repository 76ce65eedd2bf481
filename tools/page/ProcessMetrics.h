// What this process itself takes, in Prometheus' text exposition format.
#ifndef TOOLS_PAGE_PROCESSMETRICS_H
#define TOOLS_PAGE_PROCESSMETRICS_H

#include <string>

std::string processPrometheus();

#endif
