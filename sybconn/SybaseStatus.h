#ifndef SYBCONN_SYBASESTATUS_H
#define SYBCONN_SYBASESTATUS_H

#include <string>

// One server message or client-library error, as handed to the process-wide
// error handler (SybaseConnection::setErrorHandler). `msgno` is non-zero for a
// message from the server and zero for an error of the client library; the
// client library fills `dbLibSeverity`, `dberr` and `dberrstr`, the server
// `srvSeverity`, `msgno`, `msgtext` and the rest. `sqlstate` is the five
// characters of a PostgreSQL server message's SQLSTATE (its `msgno` derives
// from them); it is empty for the other backends and for client errors.
// Thread safety: a plain value; distinct objects may be used on different threads at once.
struct SybaseStatus {
  int dbLibSeverity = 0;
  int dberr = 0;
  int oserr = 0;
  std::string dberrstr;
  std::string oserrstr;
  int msgno = 0;
  int msgstate = 0;
  int srvSeverity = 0;
  std::string msgtext;
  std::string srvname;
  std::string procname;
  int line = 0;
  std::string sqlstate;
};

#endif
