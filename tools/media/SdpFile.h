// Session descriptions as files (Sdp.h).
#ifndef TOOLS_MEDIA_SDPFILE_H
#define TOOLS_MEDIA_SDPFILE_H

#include <string>

// The URL that a file describes, where `input` is the path of one ("news.sdp", "file:///srv/news"),
// or else `input` itself. Throws UsageError.
std::string streamOf(const std::string& input);

#endif
