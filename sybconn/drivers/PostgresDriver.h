#ifndef SYBCONN_DRIVERS_POSTGRESDRIVER_H
#define SYBCONN_DRIVERS_POSTGRESDRIVER_H

#include <memory>

#include <sybconn/Driver.h>
#include <sybconn/PostgresSettings.h>

namespace sybconn {
// The driver for PostgreSQL through libpq, selected by server names
// "postgresql://..." and "postgres://..." (the whole URI is the target).
// Statements pass through the Sybase dialect rewrite first; rows stream one
// at a time (libpq's single-row mode).
std::unique_ptr<Driver> makePostgresDriver();
}  // namespace sybconn

#endif
