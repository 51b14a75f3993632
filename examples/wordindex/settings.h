// What the registry keeps between runs.
//
// Key "wordindex": settings that people make. Buckets and Top are 32-bit numbers, Encoding is a
// string as on the command line. Key "wordindex\LastRun": the folder and the figures of the last
// run that counted everything it could read.
//
// The registry is a convenience. Without it, or with values in it that make no sense, the program
// works all the same; it only takes a note.
#pragma once

#include <optional>

#include "options.h"
#include "summary.h"

namespace wordindex {

// Does away with a note, or shows it.
using Note = std::function<void(const std::string& what)>;

Settings read_settings(const Client& client, const Note& note);
void write_last_run(const Client& client, const std::string& folder, const Summary& summary,
                    const Note& note);

}  // namespace wordindex
