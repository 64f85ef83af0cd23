#ifndef SYBCONN_DRIVERS_POSTGRESDRIVER_H
#define SYBCONN_DRIVERS_POSTGRESDRIVER_H

#include <sys/time.h>

#include <memory>
#include <string>

#include <sybconn/Driver.h>
#include <sybconn/PostgresSettings.h>

namespace sybconn {
// The driver for PostgreSQL through libpq, selected by server names
// "postgresql://..." and "postgres://..." (the whole URI is the target).
// Statements pass through the Sybase dialect rewrite first; rows stream one
// at a time (libpq's single-row mode).
std::unique_ptr<Driver> makePostgresDriver();

// Reads a date, timestamp or timestamptz text of the server (DateStyle ISO)
// into `tv`; false, with `tv` untouched, for any other text. An offset
// ("+01", "-05:30") gives the exact instant; a text without one is local
// time, as SybUtils::parseDate reads it. Fuzzed.
bool parsePostgresDate(std::string text, timeval& tv);

// The row a COPY's error names in its context field ("COPY t, line 5001[,
// column ...]", lines counting from 1, one a row, possibly after lines of
// functions the row called): its index from 0, below `sent`, the rows sent;
// -1 when the context (null allowed) names none. In a server's language other
// than English, the first number after the table's name. Fuzzed.
long copyFailedRow(const char* context, long sent);
}  // namespace sybconn

#endif
