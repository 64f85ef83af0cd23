#include <dataAccess/db/ConnectionPool.h>
#include <sybconn/PostgresSettings.h>

#include <ace/Guard_T.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Thread_Manager.h>

#include <string>

#include <daLog/Log.h>

int ConnectionPool::maxPoolSize_ = 20;
std::atomic<ConnectionPool*> ConnectionPool::instance_{nullptr};
ConnectionPool::lock_t ConnectionPool::lock_;

namespace {
const long kMaxPoolSizeLimit = 20;
}

// ------------------------------------------------------------------ Reaper

ConnectionPool::Reaper::Reaper(ConnectionPool* pool, long sleepTime, long maxIdleLifeTime, long maxLifeTime)
    : pool_(pool),
      sleepTimeMs_(sleepTime * 1000),
      maxIdleLifeTime_(maxIdleLifeTime),
      maxLifeTime_(maxLifeTime),
      wake_(wakeLock_) {}

int ConnectionPool::Reaper::start() {
  {
    ACE_Guard<ACE_Thread_Mutex> guard(wakeLock_);
    stop_ = false;
  }
  running_ = true;
  if (activate(THR_NEW_LWP | THR_JOINABLE, 1) != 0) {
    running_ = false;
    return -1;
  }
  return 0;
}

void ConnectionPool::Reaper::stop() {
  if (!running_.load()) return;
  thr_mgr()->cancel_task(this);
  {
    ACE_Guard<ACE_Thread_Mutex> guard(wakeLock_);
    stop_ = true;
    wake_.broadcast();
  }
  thr_mgr()->wait_task(this);
  running_ = false;
}

void ConnectionPool::Reaper::setSleepTimeMs(long ms) {
  // Without a pause between rounds the reaper would hold the pool's lock
  // nearly all the time.
  if (ms <= 0) {
    DA_LOG_ERROR("Invalid reaper sleep time = %s ms", std::to_string(ms).c_str());
    return;
  }
  ACE_Guard<ACE_Thread_Mutex> guard(wakeLock_);
  sleepTimeMs_ = ms;
  // Let a waiting round pick up the new interval at once.
  wake_.broadcast();
}

void ConnectionPool::Reaper::setMaxIdleLifeTime(long seconds) { maxIdleLifeTime_ = seconds; }
void ConnectionPool::Reaper::setMaxLifeTime(long seconds) { maxLifeTime_ = seconds; }

int ConnectionPool::Reaper::svc() {
  for (;;) {
    if (thr_mgr()->testcancel(ACE_Thread::self())) break;
    {
      // Sleep one interval, measured from the start of the wait; a change of
      // the interval re-arms the deadline, a stop request ends the wait.
      ACE_Guard<ACE_Thread_Mutex> guard(wakeLock_);
      const ACE_Time_Value start = ACE_OS::gettimeofday();
      while (!stop_) {
        ACE_Time_Value deadline = start;
        deadline.msec(static_cast<long>(start.msec() + sleepTimeMs_.load()));
        if (ACE_OS::gettimeofday() >= deadline) break;
        if (wake_.wait(&deadline) == -1 && errno != ETIME) break;
      }
      if (stop_) break;
      // Logged before the lock is dropped: once setSleepTimeMs or stop has
      // taken the lock, every round that started before has written its line.
      DA_LOG_DEBUG("Reaper: looking for disused connections");
    }
    pool_->reap(time(nullptr));
  }
  DA_LOG_INFO("Reaper exit");
  return 0;
}

// ------------------------------------------------------------------ Pool

ConnectionPool::ConnectionPool() : reaper_(this, 5, 60, 600) {
  DA_LOG_DEBUG("ConnectionPool::ConnectionPool: starting reaper thread");
  reaper_.start();
}

ConnectionPool::~ConnectionPool() {
  DA_LOG_DEBUG("Terminating reaper thread");
  reaper_.stop();
  ACE_Guard<lock_t> guard(lock_);
  for (auto& rec : pool_) {
    if (rec.sybconn) {
      rec.sybconn->disconnect();
      delete rec.sybconn;
    }
  }
  pool_.clear();
}

ConnectionPool* ConnectionPool::instance() {
  ConnectionPool* p = instance_.load(std::memory_order_acquire);
  if (p == nullptr) {
    ACE_Guard<lock_t> guard(lock_);
    p = instance_.load(std::memory_order_relaxed);
    if (p == nullptr) {
      DA_LOG_DEBUG("Creating unique instance of ConnectionPool");
      p = new ConnectionPool();
      instance_.store(p, std::memory_order_release);
    }
  }
  return p;
}

void ConnectionPool::destroyInstance() {
  ConnectionPool* p = nullptr;
  {
    ACE_Guard<lock_t> guard(lock_);
    p = instance_.exchange(nullptr);
  }
  // Deleted without the lock: the reaper may need it to finish its round.
  delete p;
}

SybaseConnection* ConnectionPool::acquireConnection(const std::string& server, const std::string& user,
                                                    const std::string& password) {
  ACE_Guard<lock_t> guard(lock_);
  for (iterator_t it = pool_.begin(); it != pool_.end();) {
    if (it->available && it->server == server && it->user == user) {
      if (!it->sybconn || !it->sybconn->isConnected()) {
        // A login that died while it was free (server restart): drop it.
        it = removeConnection(it);
        continue;
      }
      DA_LOG_DEBUG("Acquiring available connection to server %s as user %s",
                   daLog::clip(sybconn::serverForDisplay(server)).c_str(), daLog::clip(user).c_str());
      it->available = false;
      return it->sybconn;
    }
    ++it;
  }
  return allocateNewConnection(server, user, password);
}

SybaseConnection* ConnectionPool::allocateNewConnection(const std::string& server, const std::string& user,
                                                        const std::string& password) {
  if (static_cast<int>(pool_.size()) >= maxPoolSize_) {
    DA_LOG_ERROR("Can't allocate new connection. Pool size %d", static_cast<int>(pool_.size()));
    return nullptr;
  }
  DA_LOG_DEBUG("Connecting to server %s as user %s", daLog::clip(sybconn::serverForDisplay(server)).c_str(),
               daLog::clip(user).c_str());
  auto* conn = new SybaseConnection();
  conn->connect(server, user, password);
  if (conn->isConnected()) {
    const time_t now = time(nullptr);
    pool_.push_back(Connection{conn, false, server, user, password, now, now});
    DA_LOG_DEBUG("Allocated new connection. Pool size %d", static_cast<int>(pool_.size()));
    return conn;
  }
  DA_LOG_ERROR("Could not connect to server %s as user %s",
               daLog::clip(sybconn::serverForDisplay(server)).c_str(), daLog::clip(user).c_str());
  delete conn;
  return nullptr;
}

int ConnectionPool::releaseConnection(SybaseConnection* conn) {
  // A result set that the giver still holds must never reach the login once
  // another thread has it: its pending results are read off now, while the
  // login is still the giver's, and outside the lock, since reading waits on
  // the server.
  bool held = false;
  {
    ACE_Guard<lock_t> guard(lock_);
    for (const auto& rec : pool_) held = held || (rec.sybconn == conn && !rec.available);
  }
  if (held) conn->releaseResults();
  ACE_Guard<lock_t> guard(lock_);
  for (auto& rec : pool_) {
    if (rec.sybconn == conn) {
      DA_LOG_DEBUG("Releasing connection to server %s as user %s",
                   daLog::clip(sybconn::serverForDisplay(rec.server)).c_str(), daLog::clip(rec.user).c_str());
      rec.available = true;
      rec.lastReleaseTime = time(nullptr);
      return 0;
    }
  }
  DA_LOG_ERROR("Could not release connection. This should never happen!");
  return -1;
}

ConnectionPool::iterator_t ConnectionPool::removeConnection(iterator_t it) {
  // Logged off before the entry goes; null for a login that never opened.
  if (it->sybconn) it->sybconn->disconnect();
  delete it->sybconn;
  const auto at = it - pool_.begin();
  pool_.erase(it);
  DA_LOG_DEBUG("Connection removed. Pool size %d", static_cast<int>(pool_.size()));
  return pool_.begin() + at;
}

int ConnectionPool::reap(time_t now) {
  const long maxIdle = reaper_.maxIdleLifeTime();
  const long maxLife = reaper_.maxLifeTime();
  int removed = 0;
  ACE_Guard<lock_t> guard(lock_);
  for (iterator_t it = pool_.begin(); it != pool_.end();) {
    if (it->available && (it->lastReleaseTime + maxIdle < now || it->creationTime + maxLife < now)) {
      DA_LOG_INFO("Reaper: removing connection %s/%s. LifeTime %d s. IdleLifeTime %d s",
                  daLog::clip(it->server).c_str(), daLog::clip(it->user).c_str(),
                  static_cast<int>(now - it->creationTime), static_cast<int>(now - it->lastReleaseTime));
      it = removeConnection(it);
      ++removed;
    } else {
      ++it;
    }
  }
  return removed;
}

int ConnectionPool::reapNow() { return reap(time(nullptr)); }

void ConnectionPool::setMaxPoolSize(int n) {
  ACE_Guard<lock_t> guard(lock_);
  if (n < 1 || n > kMaxPoolSizeLimit) {
    DA_LOG_ERROR("Invalid maxPoolSize = %d", n);
    return;
  }
  maxPoolSize_ = n;
}

int ConnectionPool::maxPoolSize() const {
  ACE_Guard<lock_t> guard(lock_);
  return maxPoolSize_;
}

void ConnectionPool::setReaperSleepTime(long seconds) { reaper_.setSleepTimeMs(seconds * 1000); }
void ConnectionPool::setReaperSleepTimeMs(long ms) { reaper_.setSleepTimeMs(ms); }
long ConnectionPool::reaperSleepTimeMs() const { return reaper_.sleepTimeMs(); }
void ConnectionPool::setMaxIdleLifeTime(long seconds) { reaper_.setMaxIdleLifeTime(seconds); }
void ConnectionPool::setMaxLifeTime(long seconds) { reaper_.setMaxLifeTime(seconds); }
void ConnectionPool::shutdownReaper() { reaper_.stop(); }

ConnectionPool::Counts ConnectionPool::counts() const {
  ACE_Guard<lock_t> guard(lock_);
  Counts c{static_cast<int>(pool_.size()), 0, 0};
  for (const auto& rec : pool_) (rec.available ? c.free : c.inUse)++;
  return c;
}
