#include <sybconn/Driver.h>
#include <sybconn/SybaseResultSet.h>

SybaseResultSet::SybaseResultSet(std::shared_ptr<sybconn::Cursor> cursor) : cursor_(std::move(cursor)) {}

int SybaseResultSet::commandSucceeded() const { return cursor_ && cursor_->succeeded() ? 1 : 0; }
bool SybaseResultSet::hasResultSet() const { return cursor_ && cursor_->hasRows(); }
bool SybaseResultSet::next() { return cursor_ && cursor_->next(); }
int SybaseResultSet::columnCount() const { return cursor_ ? cursor_->columnCount() : 0; }
std::string SybaseResultSet::columnName(int col) const {
  return cursor_ ? cursor_->columnName(col) : std::string();
}
bool SybaseResultSet::isNull(int col) const { return !cursor_ || cursor_->isNull(col); }
std::string SybaseResultSet::getStringValue(int col) const {
  return cursor_ ? cursor_->getString(col) : std::string();
}
long SybaseResultSet::getLongValue(int col) const { return cursor_ ? cursor_->getLong(col) : 0L; }
double SybaseResultSet::getDoubleValue(int col) const { return cursor_ ? cursor_->getDouble(col) : 0.0; }
timeval SybaseResultSet::getDateAsTimevalValue(int col) const {
  return cursor_ ? cursor_->getDate(col) : timeval{0, 0};
}
void SybaseResultSet::releaseResults() {
  if (cursor_) cursor_->release();
}
long SybaseResultSet::rowCount() const { return cursor_ ? cursor_->rowCount() : -1; }
