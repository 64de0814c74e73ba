// QuaZip takes a name flagged as UTF-8 for a feature of version 6.3 of the zip format: an entry
// with such a name that needs zip64 fields (4 GiB or more, or beyond 4 GiB into the archive) gets
// "version needed to extract" 6.3 in the central directory, as does the zip64 end record.
// Info-ZIP's unzip 6.0, which reads both UTF-8 names and zip64, goes by the field and refuses the
// entry.
#pragma once

#include <QString>

namespace measurement::dataExchange {

// Lowers every such 6.3 of the archive at path to what its entry uses: 4.5 with zip64 fields,
// else 2.0 deflated, 1.0 stored; 4.5 in the zip64 end record. Nothing else changes, and an
// archive without them is not written to. False when the archive cannot be read or written.
bool lowerVersionNeeded(const QString& path);

} // namespace measurement::dataExchange
