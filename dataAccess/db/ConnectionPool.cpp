#include <dataAccess/db/ConnectionPool.h>
#include <sybconn/PostgresSettings.h>

#include <ace/Guard_T.h>
#include <ace/OS_NS_Thread.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Reverse_Lock_T.h>
#include <ace/Thread_Manager.h>

#include <time.h>
#include <algorithm>
#include <memory>
#include <random>
#include <string>

#include <daLog/Log.h>

int ConnectionPool::maxPoolSize_ = 20;
std::atomic<ConnectionPool*> ConnectionPool::instance_{nullptr};
namespace {
// The pool's lock is held for a short walk at a time. A borrower that finds
// it taken spins briefly before it sleeps, as the holder, on the other core,
// is about to let it go: sleeping and waking cost far more than the walk.
ACE_mutexattr_t* adaptiveMutex() {
  static pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
  return &attributes;
}
}  // namespace

ConnectionPool::lock_t ConnectionPool::lock_(nullptr, adaptiveMutex());

namespace {
// Holds the pool's lock for a scope, through the mutex's own lock and unlock
// calls: ACE's wrappers add an out-of-line call and error mapping to each,
// a third of what a borrow and return cost.
class Locked {
 public:
  explicit Locked(ConnectionPool::lock_t& m) : m_(m.lock()) { pthread_mutex_lock(&m_); }
  ~Locked() { pthread_mutex_unlock(&m_); }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

 private:
  ACE_thread_mutex_t& m_;
};
}  // namespace

namespace {
const long kMaxPoolSizeLimit = 20;
// The largest share of the maximum lifetime by which a login retires early.
const double kLifeJitter = 0.025;
}  // namespace

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

namespace {

// Milliseconds of a monotonic clock, for how long a login has been borrowed
// and a borrower waited. The coarse clock (a few ms fine) costs a fraction of
// the fine one, and every borrow reads it.
long long monotonicMs() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

unsigned long thisThread() { return static_cast<unsigned long>(ACE_OS::thr_self()); }

}  // namespace

// A borrower waiting for a login, on its own stack. It sleeps on its own
// condition until a login or room is handed to it, so that a return wakes
// one waiter and the right one.
struct ConnectionPool::Waiter {
  Waiter(const std::string& s, const std::string& u) : server(s), user(u), ready(lock_) {}
  const std::string& server;
  const std::string& user;
  const unsigned long thread = thisThread();
  ACE_Condition_Thread_Mutex ready;     // signalled with lock_ held
  SybaseConnection* granted = nullptr;  // a login handed over, borrowed for this waiter
  bool room = false;                    // a place under the size limit, counted in opening_
};

ConnectionPool::ConnectionPool() : reaper_(this, 5, 60, 600), rng_(std::random_device{}()) {
  DA_LOG_DEBUG("ConnectionPool::ConnectionPool: starting reaper thread");
  reaper_.start();
}

ConnectionPool::~ConnectionPool() {
  DA_LOG_DEBUG("Terminating reaper thread");
  reaper_.stop();
  Locked guard(lock_);
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
    Locked guard(lock_);
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
    Locked guard(lock_);
    p = instance_.exchange(nullptr);
  }
  // Deleted without the lock: the reaper may need it to finish its round.
  delete p;
}

SybaseConnection* ConnectionPool::acquireConnection(const std::string& server, const std::string& user,
                                                    const std::string& password) {
  // What a borrow needs from outside the pool is read before the lock, which
  // is then held for the walk alone.
  const bool debug = daLog::debugEnabled();
  const unsigned long thread = thisThread();
  const long long nowMs = monotonicMs();
  Locked guard(lock_);
  for (iterator_t it = pool_.begin(); it != pool_.end();) {
    if (it->available && it->server == server && it->user == user) {
      if (!alive(*it)) {
        // A login that died while it was free (server restart): drop it.
        it = removeConnection(it);
        ++totals_.deadDropped;
        continue;
      }
      // The texts are built only for a line that is written: a borrow costs
      // little more than the lock.
      if (debug)
        DA_LOG_DEBUG("Acquiring available connection to server %s as user %s",
                     daLog::clip(sybconn::serverForDisplay(server)).c_str(), daLog::clip(user).c_str());
      return borrow(*it, thread, nowMs);
    }
    ++it;
  }
  return allocateNewConnection(server, user, password);
}

SybaseConnection* ConnectionPool::borrow(Connection& rec, unsigned long thread, long long nowMs) {
  rec.available = false;
  rec.borrowedAtMs = nowMs;
  rec.borrower = thread;
  rec.leakReported = false;
  ++totals_.borrowed;
  return rec.sybconn;
}

bool ConnectionPool::alive(const Connection& rec) { return rec.sybconn->isConnected(); }

// Logins open and being opened: what the size limit bounds.
int ConnectionPool::placesTaken() const { return static_cast<int>(pool_.size()) + opening_; }
bool ConnectionPool::roomForOne() const { return placesTaken() < maxPoolSize_; }

SybaseConnection* ConnectionPool::allocateNewConnection(const std::string& server, const std::string& user,
                                                        const std::string& password) {
  if (!roomForOne()) {
    if (acquireTimeoutMs_ > 0) return wait(server, user, password);
    DA_LOG_ERROR("Can't allocate new connection. Pool size %d", placesTaken());
    return nullptr;
  }
  ++opening_;
  return open(server, user, password);
}

SybaseConnection* ConnectionPool::open(const std::string& server, const std::string& user,
                                       const std::string& password) {
  auto conn = std::make_unique<SybaseConnection>();
  {
    // A slow server answers the login while other borrowers and returns go
    // on; the place in the pool is held by opening_.
    ACE_Reverse_Lock<lock_t> unlocked(lock_);
    ACE_Guard<ACE_Reverse_Lock<lock_t>> released(unlocked);
    DA_LOG_DEBUG("Connecting to server %s as user %s", daLog::clip(sybconn::serverForDisplay(server)).c_str(),
                 daLog::clip(user).c_str());
    conn->connect(server, user, password);
  }
  --opening_;
  if (conn->isConnected()) {
    const time_t now = time(nullptr);
    const double share = 1.0 - kLifeJitter * std::uniform_real_distribution<double>(0.0, 1.0)(rng_);
    pool_.push_back(Connection{conn.release(), false, server, user, password, now, now, share, 0, 0, false});
    DA_LOG_DEBUG("Allocated new connection. Pool size %d", static_cast<int>(pool_.size()));
    return borrow(pool_.back(), thisThread(), monotonicMs());
  }
  DA_LOG_ERROR("Could not connect to server %s as user %s",
               daLog::clip(sybconn::serverForDisplay(server)).c_str(), daLog::clip(user).c_str());
  serveWaiters();  // the place it held is free again
  return nullptr;
}

SybaseConnection* ConnectionPool::wait(const std::string& server, const std::string& user,
                                       const std::string& password) {
  Waiter me(server, user);
  waiters_.push_back(&me);
  // Free logins of other servers and users may give way at once.
  serveWaiters();
  const long long start = monotonicMs();
  ACE_Time_Value deadline = ACE_OS::gettimeofday();
  deadline += ACE_Time_Value(acquireTimeoutMs_ / 1000, (acquireTimeoutMs_ % 1000) * 1000);
  // Woken by a hand-over, the deadline, or for no reason (then again).
  while (me.granted == nullptr && !me.room && ACE_OS::gettimeofday() < deadline) me.ready.wait(&deadline);
  totals_.longestWaitMs = std::max(totals_.longestWaitMs, static_cast<long>(monotonicMs() - start));
  if (me.granted != nullptr) return me.granted;
  if (me.room) return open(server, user, password);
  waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &me));
  ++totals_.timedOut;
  DA_LOG_ERROR("Can't allocate new connection. Pool size %d", placesTaken());
  return nullptr;
}

void ConnectionPool::serveWaiters() {
  // The waiter leaves the line and wakes (once the lock is let go).
  const auto handOver = [this](std::vector<Waiter*>::iterator w) {
    (*w)->ready.signal();
    waiters_.erase(w);
  };
  // A free login goes to the earliest waiter of its server and user.
  for (iterator_t it = pool_.begin(); it != pool_.end() && !waiters_.empty();) {
    const auto w = !it->available ? waiters_.end()
                                  : std::find_if(waiters_.begin(), waiters_.end(), [&](const Waiter* x) {
                                      return x->server == it->server && x->user == it->user;
                                    });
    if (w == waiters_.end()) {
      ++it;
    } else if (!alive(*it)) {
      it = removeConnection(it);
      ++totals_.deadDropped;
    } else {
      (*w)->granted = borrow(*it, (*w)->thread, monotonicMs());
      handOver(w);
      ++it;
    }
  }
  // Room under the size limit goes to the earliest waiters; a free login that
  // none of them can use is closed to make more.
  for (iterator_t it = pool_.begin(); !waiters_.empty();) {
    if (roomForOne()) {
      ++opening_;
      waiters_.front()->room = true;
      handOver(waiters_.begin());
      continue;
    }
    while (it != pool_.end() && !it->available) ++it;
    if (it == pool_.end()) return;
    it = removeConnection(it);
  }
}

int ConnectionPool::releaseConnection(SybaseConnection* conn) {
  // A result set that the giver still holds must never reach the login once
  // another thread has it: its pending results are read off now, while the
  // login is still the giver's, and outside the lock, since reading waits on
  // the server.
  bool held = false;
  {
    Locked guard(lock_);
    for (const auto& rec : pool_) held = held || (rec.sybconn == conn && !rec.available);
  }
  if (held) conn->releaseResults();
  return giveBack(conn);
}

int ConnectionPool::giveBack(SybaseConnection* conn) {
  const bool debug = daLog::debugEnabled();
  const time_t now = time(nullptr);
  Locked guard(lock_);
  for (auto& rec : pool_) {
    if (rec.sybconn != conn) continue;
    if (debug)
      DA_LOG_DEBUG("Releasing connection to server %s as user %s",
                   daLog::clip(sybconn::serverForDisplay(rec.server)).c_str(), daLog::clip(rec.user).c_str());
    if (rec.leakReported)
      DA_LOG_INFO("Connection to server %s as user %s given back by thread %lu after %lld ms",
                  daLog::clip(sybconn::serverForDisplay(rec.server)).c_str(), daLog::clip(rec.user).c_str(),
                  rec.borrower, monotonicMs() - rec.borrowedAtMs);
    rec.available = true;
    rec.leakReported = false;
    rec.lastReleaseTime = now;
    if (!waiters_.empty()) serveWaiters();
    return 0;
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
  const long leakMs = leakThresholdMs_.load();
  const long long nowMs = monotonicMs();
  int removed = 0;
  Locked guard(lock_);
  for (iterator_t it = pool_.begin(); it != pool_.end();) {
    if (!it->available) {
      if (leakMs > 0 && !it->leakReported && nowMs - it->borrowedAtMs >= leakMs) {
        DA_LOG_WARNING("Connection to server %s as user %s held by thread %lu for %lld ms",
                       daLog::clip(sybconn::serverForDisplay(it->server)).c_str(),
                       daLog::clip(it->user).c_str(), it->borrower, nowMs - it->borrowedAtMs);
        it->leakReported = true;
        ++totals_.leaksReported;
      }
      ++it;
      continue;
    }
    const double age = static_cast<double>(now - it->creationTime);
    if (it->lastReleaseTime + maxIdle < now || static_cast<double>(maxLife) * it->lifeShare < age) {
      DA_LOG_INFO("Reaper: removing connection %s/%s. LifeTime %d s. IdleLifeTime %d s",
                  daLog::clip(sybconn::serverForDisplay(it->server)).c_str(), daLog::clip(it->user).c_str(),
                  static_cast<int>(now - it->creationTime), static_cast<int>(now - it->lastReleaseTime));
      it = removeConnection(it);
      ++removed;
    } else {
      ++it;
    }
  }
  // No waiter is served here: while one waits, no login is free (each is
  // handed over or closed to make room as it comes back).
  totals_.reaped += removed;
  return removed;
}

int ConnectionPool::reapNow() { return reap(time(nullptr)); }

void ConnectionPool::setMaxPoolSize(int n) {
  Locked guard(lock_);
  if (n < 1 || n > kMaxPoolSizeLimit) {
    DA_LOG_ERROR("Invalid maxPoolSize = %d", n);
    return;
  }
  maxPoolSize_ = n;
  serveWaiters();
}

int ConnectionPool::maxPoolSize() const {
  Locked guard(lock_);
  return maxPoolSize_;
}

void ConnectionPool::setAcquireTimeoutMs(long ms) {
  if (ms < 0) {
    DA_LOG_ERROR("Invalid acquire timeout = %ld ms", ms);
    return;
  }
  Locked guard(lock_);
  acquireTimeoutMs_ = ms;
}

long ConnectionPool::acquireTimeoutMs() const {
  Locked guard(lock_);
  return acquireTimeoutMs_;
}

void ConnectionPool::setLeakThresholdMs(long ms) {
  if (ms < 0) {
    DA_LOG_ERROR("Invalid leak threshold = %ld ms", ms);
    return;
  }
  leakThresholdMs_ = ms;
}

long ConnectionPool::leakThresholdMs() const { return leakThresholdMs_.load(); }

void ConnectionPool::setReaperSleepTime(long seconds) { reaper_.setSleepTimeMs(seconds * 1000); }
void ConnectionPool::setReaperSleepTimeMs(long ms) { reaper_.setSleepTimeMs(ms); }
long ConnectionPool::reaperSleepTimeMs() const { return reaper_.sleepTimeMs(); }
void ConnectionPool::setMaxIdleLifeTime(long seconds) { reaper_.setMaxIdleLifeTime(seconds); }
void ConnectionPool::setMaxLifeTime(long seconds) { reaper_.setMaxLifeTime(seconds); }
void ConnectionPool::shutdownReaper() { reaper_.stop(); }

ConnectionPool::Stats ConnectionPool::stats() const {
  Locked guard(lock_);
  Stats s = totals_;
  s.total = static_cast<long>(pool_.size());
  s.inUse = 0;
  for (const auto& rec : pool_) s.inUse += rec.available ? 0 : 1;
  s.free = s.total - s.inUse;
  s.waiting = static_cast<long>(waiters_.size());
  return s;
}

ConnectionPool::Counts ConnectionPool::counts() const {
  const Stats s = stats();
  return Counts{static_cast<int>(s.total), static_cast<int>(s.inUse), static_cast<int>(s.free)};
}
