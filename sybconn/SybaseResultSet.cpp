#include <sybconn/Driver.h>
#include <sybconn/SybaseResultSet.h>

// Every row of every backend is read through these forwarders, and every
// statement passes through the connection's connect and execute: they are
// marked hot, so that GCC places them together in .text.hot, beside the PLT
// through which every call into a backend goes, instead of on both sides of
// the FreeTDS driver's code. A process that reads rows over SQLite then maps
// (through the kernel's 64 KiB fault-around) one or two windows of the
// library's code fewer: some 64 to 128 KiB of a select's peak RSS.
[[gnu::hot]] SybaseResultSet::SybaseResultSet(std::shared_ptr<sybconn::Cursor> cursor)
    : cursor_(std::move(cursor)) {}

[[gnu::hot]] int SybaseResultSet::commandSucceeded() const { return cursor_ && cursor_->succeeded() ? 1 : 0; }
[[gnu::hot]] bool SybaseResultSet::hasResultSet() const { return cursor_ && cursor_->hasRows(); }
[[gnu::hot]] bool SybaseResultSet::next() { return cursor_ && cursor_->next(); }
[[gnu::hot]] int SybaseResultSet::columnCount() const { return cursor_ ? cursor_->columnCount() : 0; }
[[gnu::hot]] std::string SybaseResultSet::columnName(int col) const {
  return cursor_ ? cursor_->columnName(col) : std::string();
}
[[gnu::hot]] bool SybaseResultSet::isNull(int col) const { return !cursor_ || cursor_->isNull(col); }
[[gnu::hot]] std::string SybaseResultSet::getStringValue(int col) const {
  return cursor_ ? cursor_->getString(col) : std::string();
}
[[gnu::hot]] long SybaseResultSet::getLongValue(int col) const {
  return cursor_ ? cursor_->getLong(col) : 0L;
}
[[gnu::hot]] double SybaseResultSet::getDoubleValue(int col) const {
  return cursor_ ? cursor_->getDouble(col) : 0.0;
}
[[gnu::hot]] timeval SybaseResultSet::getDateAsTimevalValue(int col) const {
  return cursor_ ? cursor_->getDate(col) : timeval{0, 0};
}
[[gnu::hot]] void SybaseResultSet::releaseResults() {
  if (cursor_) cursor_->release();
}
[[gnu::hot]] long SybaseResultSet::rowCount() const { return cursor_ ? cursor_->rowCount() : -1; }
