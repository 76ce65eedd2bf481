// Small files that are read at once.
#ifndef TOOLS_BASE_REGULARFILE_H
#define TOOLS_BASE_REGULARFILE_H

#include <cstddef>
#include <string>

// The file's bytes, or its first ones where it has more than `most`. What may never end, or for
// whose writer one would have to wait, is no regular file and is refused. Throws Failure.
std::string readRegularFile(const std::string& path, size_t most);

#endif
