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
uint64_t ConnectionPool::logins_ = 0;
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

// The status in the low two bits of a place's state word.
enum : uint64_t { kEmpty = 0, kFree = 1, kInUse = 2, kClosing = 3, kStatus = 3 };
uint64_t statusOf(uint64_t word) { return word & kStatus; }
uint64_t withStatus(uint64_t word, uint64_t status) { return (word & ~kStatus) | status; }

// Takes a place from the state `seen` to `status`; fails when another thread
// changed it first (a borrow or return without the lock).
bool claim(std::atomic<uint64_t>& state, uint64_t seen, uint64_t status) {
  return state.compare_exchange_strong(seen, withStatus(seen, status));
}

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
  int slot = -1;                        // and its place
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
  for (auto& slot : slots_) {
    if (statusOf(slot.state.load()) == kEmpty) continue;
    slot.sybconn->disconnect();
    delete slot.sybconn;
  }
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
  return acquire(server, user, password, nullptr);
}

SybaseConnection* ConnectionPool::acquire(const std::string& server, const std::string& user,
                                          const std::string& password, Ticket* ticket) {
  // What a borrow needs from outside the pool is read before the lock, which
  // is then held for the walk alone. The texts of the DEBUG line are built
  // only for a line that is written.
  const bool debug = daLog::debugEnabled();
  const unsigned long thread = thisThread();
  const long long nowMs = monotonicMs();
  const auto handOut = [&](Slot& slot) {
    if (debug)
      DA_LOG_DEBUG("Acquiring available connection to server %s as user %s",
                   daLog::clip(sybconn::serverForDisplay(server)).c_str(), daLog::clip(user).c_str());
    return borrow(slot, thread, nowMs);
  };
  // The login the ticket's holder gave back last, if no one took it since:
  // its state word is still the one the return left.
  Slot* dead = nullptr;
  if (ticket != nullptr && statusOf(ticket->word) == kFree) {
    Slot& slot = slots_[ticket->slot];
    const uint64_t seen = std::exchange(ticket->word, 0);
    if (claim(slot.state, seen, kInUse)) {
      ticket->word = withStatus(seen, kInUse);
      if (slot.sybconn->isConnected()) return handOut(slot);
      dead = &slot;
    }
  }
  Locked guard(lock_);
  if (dead != nullptr) {
    // A login that died while it was free (server restart): drop it.
    close(*dead);
    ++totals_.deadDropped;
  }
  for (int i = 0; i < kSlots; ++i) {
    Slot& slot = slots_[i];
    const uint64_t seen = slot.state.load();
    if (statusOf(seen) != kFree || slot.server != server || slot.user != user) continue;
    if (!claim(slot.state, seen, kInUse)) continue;  // taken back by its last holder
    if (!slot.sybconn->isConnected()) {
      close(slot);
      ++totals_.deadDropped;
      continue;
    }
    if (ticket != nullptr) *ticket = Ticket{i, withStatus(seen, kInUse)};
    return handOut(slot);
  }
  return allocateNewConnection(server, user, password, ticket);
}

SybaseConnection* ConnectionPool::borrow(Slot& slot, unsigned long thread, long long nowMs) {
  // Only the holder writes these; the reaper reads the time last, so that it
  // never pairs this borrow with the last one's thread.
  slot.borrower.store(thread, std::memory_order_relaxed);
  slot.borrows.store(slot.borrows.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
  slot.borrowedAtMs.store(nowMs, std::memory_order_release);
  return slot.sybconn;
}

// Logins open and being opened: what the size limit bounds.
int ConnectionPool::placesTaken() const { return size_ + opening_; }
bool ConnectionPool::roomForOne() const { return placesTaken() < maxPoolSize_; }

SybaseConnection* ConnectionPool::allocateNewConnection(const std::string& server, const std::string& user,
                                                        const std::string& password, Ticket* ticket) {
  if (!roomForOne()) {
    if (acquireTimeoutMs_ > 0) return wait(server, user, password, ticket);
    DA_LOG_ERROR("Can't allocate new connection. Pool size %d", placesTaken());
    return nullptr;
  }
  ++opening_;
  return open(server, user, password, ticket);
}

SybaseConnection* ConnectionPool::open(const std::string& server, const std::string& user,
                                       const std::string& password, Ticket* ticket) {
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
  if (!conn->isConnected()) {
    DA_LOG_ERROR("Could not connect to server %s as user %s",
                 daLog::clip(sybconn::serverForDisplay(server)).c_str(), daLog::clip(user).c_str());
    serveWaiters();  // the place it held is free again
    return nullptr;
  }
  // The size limit is at most kSlots, and this login's place was counted:
  // an empty place is there.
  int i = 0;
  while (statusOf(slots_[i].state.load()) != kEmpty) ++i;
  Slot& slot = slots_[i];
  const time_t now = time(nullptr);
  slot.sybconn = conn.release();
  slot.server = server;
  slot.user = user;
  slot.password = password;
  slot.creationTime = now;
  slot.lifeShare = 1.0 - kLifeJitter * std::uniform_real_distribution<double>(0.0, 1.0)(rng_);
  slot.lastReleaseTime = now;
  slot.borrows = 0;
  slot.leakReported = -1;
  slot.state.store(++logins_ << 2 | kInUse);
  ++size_;
  DA_LOG_DEBUG("Allocated new connection. Pool size %d", size_);
  if (ticket != nullptr) *ticket = Ticket{i, slot.state.load()};
  return borrow(slot, thisThread(), monotonicMs());
}

SybaseConnection* ConnectionPool::wait(const std::string& server, const std::string& user,
                                       const std::string& password, Ticket* ticket) {
  Waiter me(server, user);
  waiters_.push_back(&me);
  setWaiting();
  // Free logins of other servers and users may give way at once.
  serveWaiters();
  const long long start = monotonicMs();
  ACE_Time_Value deadline = ACE_OS::gettimeofday();
  deadline += ACE_Time_Value(acquireTimeoutMs_ / 1000, (acquireTimeoutMs_ % 1000) * 1000);
  // Woken by a hand-over, the deadline, or for no reason (then again).
  while (me.granted == nullptr && !me.room && ACE_OS::gettimeofday() < deadline) me.ready.wait(&deadline);
  totals_.longestWaitMs = std::max(totals_.longestWaitMs, static_cast<long>(monotonicMs() - start));
  if (me.granted != nullptr) {
    if (ticket != nullptr) *ticket = Ticket{me.slot, slots_[me.slot].state.load()};
    return me.granted;
  }
  if (me.room) return open(server, user, password, ticket);
  waiters_.erase(std::find(waiters_.begin(), waiters_.end(), &me));
  setWaiting();
  ++totals_.timedOut;
  DA_LOG_ERROR("Can't allocate new connection. Pool size %d", placesTaken());
  return nullptr;
}

void ConnectionPool::setWaiting() { waiting_.store(static_cast<long>(waiters_.size())); }

void ConnectionPool::serveWaiters() {
  // The waiter leaves the line and wakes (once the lock is let go).
  const auto handOver = [this](std::vector<Waiter*>::iterator w) {
    (*w)->ready.signal();
    waiters_.erase(w);
    setWaiting();
  };
  // A free login goes to the earliest waiter of its server and user.
  for (int i = 0; i < kSlots && !waiters_.empty(); ++i) {
    Slot& slot = slots_[i];
    const uint64_t seen = slot.state.load();
    if (statusOf(seen) != kFree) continue;
    const auto w = std::find_if(waiters_.begin(), waiters_.end(), [&](const Waiter* x) {
      return x->server == slot.server && x->user == slot.user;
    });
    if (w == waiters_.end() || !claim(slot.state, seen, kInUse)) continue;
    if (!slot.sybconn->isConnected()) {
      close(slot);
      ++totals_.deadDropped;
      continue;
    }
    (*w)->granted = borrow(slot, (*w)->thread, monotonicMs());
    (*w)->slot = i;
    handOver(w);
  }
  // Room under the size limit goes to the earliest waiters; a free login that
  // none of them can use is closed to make more.
  for (int i = 0; !waiters_.empty();) {
    if (roomForOne()) {
      ++opening_;
      waiters_.front()->room = true;
      handOver(waiters_.begin());
      continue;
    }
    while (i < kSlots && !claim(slots_[i].state, withStatus(slots_[i].state.load(), kFree), kClosing)) ++i;
    if (i == kSlots) return;
    close(slots_[i]);
  }
}

int ConnectionPool::slotOf(const SybaseConnection* conn) const {
  for (int i = 0; i < kSlots; ++i)
    if (statusOf(slots_[i].state.load()) != kEmpty && slots_[i].sybconn == conn) return i;
  return -1;
}

int ConnectionPool::releaseConnection(SybaseConnection* conn) {
  Ticket none;
  return giveBack(conn, none);
}

int ConnectionPool::giveBack(SybaseConnection* conn, Ticket& ticket) {
  // A ticket whose word is still the place's names the login without a look.
  int at = ticket.slot;
  if (at < 0 || statusOf(ticket.word) != kInUse || slots_[at].state.load() != ticket.word) {
    Locked guard(lock_);
    at = slotOf(conn);
  }
  if (at < 0) {
    DA_LOG_ERROR("Could not release connection. This should never happen!");
    return -1;
  }
  // Given back twice: it is free already.
  if (statusOf(slots_[at].state.load()) != kInUse) return 0;
  // A result set that the giver still holds must never reach the login once
  // another thread has it: its pending results are read off now, while the
  // login is still the giver's, and outside the lock, since reading waits on
  // the server.
  conn->releaseResults();
  putBack(at, ticket);
  return 0;
}

void ConnectionPool::putBack(int at, Ticket& ticket) {
  Slot& slot = slots_[at];
  if (daLog::debugEnabled())
    DA_LOG_DEBUG("Releasing connection to server %s as user %s",
                 daLog::clip(sybconn::serverForDisplay(slot.server)).c_str(), daLog::clip(slot.user).c_str());
  if (slot.leakReported.load() == slot.borrows.load(std::memory_order_relaxed))
    DA_LOG_INFO("Connection to server %s as user %s given back by thread %lu after %lld ms",
                daLog::clip(sybconn::serverForDisplay(slot.server)).c_str(), daLog::clip(slot.user).c_str(),
                slot.borrower.load(), monotonicMs() - slot.borrowedAtMs.load());
  slot.borrowedAtMs.store(0, std::memory_order_relaxed);
  slot.lastReleaseTime.store(time(nullptr), std::memory_order_relaxed);
  // Sequentially consistent, as is the count of waiters a waiter raises
  // before it looks for a free login: either that look finds this login or
  // this return sees the waiter.
  const uint64_t free = withStatus(slot.state.load(std::memory_order_relaxed), kFree);
  slot.state.store(free);
  ticket = Ticket{at, free};
  if (waiting_.load() > 0) {
    Locked guard(lock_);
    serveWaiters();
  }
}

void ConnectionPool::close(Slot& slot) {
  // Logged off before the place is emptied.
  slot.sybconn->disconnect();
  delete slot.sybconn;
  slot.sybconn = nullptr;
  slot.server.clear();
  slot.user.clear();
  slot.password.clear();
  totals_.borrowed += slot.borrows.exchange(0);
  slot.state.store(withStatus(slot.state.load(), kEmpty));
  --size_;
  DA_LOG_DEBUG("Connection removed. Pool size %d", size_);
}

int ConnectionPool::reap(time_t now) {
  const long maxIdle = reaper_.maxIdleLifeTime();
  const long maxLife = reaper_.maxLifeTime();
  const long leakMs = leakThresholdMs_.load();
  const long long nowMs = monotonicMs();
  int removed = 0;
  Locked guard(lock_);
  for (Slot& slot : slots_) {
    const uint64_t seen = slot.state.load();
    if (statusOf(seen) == kInUse) {
      // Read against a borrow and return on the way: the borrow's number
      // before and after the time must agree.
      const long borrowNo = slot.borrows.load();
      const long long since = slot.borrowedAtMs.load(std::memory_order_acquire);
      const unsigned long thread = slot.borrower.load();
      if (leakMs > 0 && since != 0 && nowMs - since >= leakMs && slot.leakReported.load() != borrowNo &&
          slot.borrows.load() == borrowNo) {
        DA_LOG_WARNING("Connection to server %s as user %s held by thread %lu for %lld ms",
                       daLog::clip(sybconn::serverForDisplay(slot.server)).c_str(),
                       daLog::clip(slot.user).c_str(), thread, nowMs - since);
        slot.leakReported = borrowNo;
        ++totals_.leaksReported;
      }
      continue;
    }
    if (statusOf(seen) != kFree) continue;
    const time_t released = slot.lastReleaseTime.load();
    const double age = static_cast<double>(now - slot.creationTime);
    if (released + maxIdle >= now && static_cast<double>(maxLife) * slot.lifeShare >= age) continue;
    // Taken back by its last holder meanwhile: not idle after all.
    if (!claim(slot.state, seen, kClosing)) continue;
    DA_LOG_INFO("Reaper: removing connection %s/%s. LifeTime %d s. IdleLifeTime %d s",
                daLog::clip(sybconn::serverForDisplay(slot.server)).c_str(), daLog::clip(slot.user).c_str(),
                static_cast<int>(now - slot.creationTime), static_cast<int>(now - released));
    close(slot);
    ++removed;
  }
  // No waiter is served here: while one waits, no login is free (each is
  // handed over or closed to make room as it comes back).
  totals_.reaped += removed;
  return removed;
}

int ConnectionPool::reapNow() { return reap(time(nullptr)); }

void ConnectionPool::setMaxPoolSize(int n) {
  Locked guard(lock_);
  if (n < 1 || n > kSlots) {
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
  s.total = size_;
  s.inUse = 0;
  for (const Slot& slot : slots_) {
    s.inUse += statusOf(slot.state.load()) == kInUse ? 1 : 0;
    s.borrowed += slot.borrows.load();
  }
  s.free = s.total - s.inUse;
  s.waiting = static_cast<long>(waiters_.size());
  return s;
}

ConnectionPool::Counts ConnectionPool::counts() const {
  const Stats s = stats();
  return Counts{static_cast<int>(s.total), static_cast<int>(s.inUse), static_cast<int>(s.free)};
}
