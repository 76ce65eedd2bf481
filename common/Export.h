// The libraries are built with hidden visibility; what carries this mark is exported.
#ifndef COMMON_EXPORT_H
#define COMMON_EXPORT_H

#define ZAQ_EXPORT __attribute__((visibility("default")))

#endif
