#ifndef SYBCONN_DRIVERS_FREETDSDRIVER_H
#define SYBCONN_DRIVERS_FREETDSDRIVER_H

#include <memory>

#include <sybconn/Driver.h>
#include <sybconn/FreeTdsSettings.h>

namespace sybconn {
// The driver for Sybase ASE and Microsoft SQL Server over FreeTDS's DB-Library.
std::unique_ptr<Driver> makeFreeTdsDriver();
}  // namespace sybconn

#endif
