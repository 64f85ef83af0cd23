#ifndef DATAACCESS_DB_CONNECTIONPOOL_H
#define DATAACCESS_DB_CONNECTIONPOOL_H

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Task.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include <sybconn/SybaseConnection.h>

// The process-wide owner of open database logins. Service connections borrow a
// login for a server and user and give it back; a free login of the same
// server and user is reused (the password is not compared), a new one is
// opened while the pool is below its size limit, and the Reaper thread closes
// free logins that stayed idle or lived too long. A free login found dead when
// it is about to be handed out is removed and the search goes on. Its log
// lines name the server and user by at most their first 128 characters and
// "...": these come from the parameters file, where a line may be 4 KiB long.
//
// Opt-in settings (the defaults keep the behaviour above):
// - setAcquireTimeoutMs(ms): a borrower that finds the pool full waits up to
//   `ms` for a login instead of failing at once. Waiters sleep (no polling)
//   and are served in the order they came: a login given back goes to the
//   earliest waiter of its server and user, room under the size limit to the
//   earliest waiter of all. A free login that no waiter can use is closed to
//   make room for one. On expiry the borrower fails as a full pool does.
// - setLeakThresholdMs(ms): a login held longer is reported once at WARNING
//   (server, user, borrowing thread, time held) by the reaper's next round,
//   and at INFO when it comes back.
// Each login retires from its maximum lifetime a random share of up to 2.5%
// early, so that logins opened together do not all close together. A login
// is opened without the pool's lock held: other borrowers and returns go
// on while a slow server answers.
//
// A service connection takes the login it gave back last again without the
// pool's lock when that login is still free, and gives it back the same way
// when no one waits: a program whose threads each keep one service connection
// does not queue on the lock. Each login's place holds an atomic state word
// (free, borrowed, or being opened or closed under the lock) that names the
// login, so a stale claim never takes another login.
//
// Thread safety: every member may be called from any thread at once (one lock
// guards the list of logins and the waiters, each login's state is atomic),
// except destroyInstance(), which must not run while another thread uses the
// pool.
class ConnectionPool {
 public:
  typedef ACE_Thread_Mutex lock_t;

  // Closes free logins that have been idle longer than the maximum idle
  // lifetime or have lived longer than the maximum lifetime; logins in use are
  // never touched. Wakes every sleep time. Times are seconds.
  class Reaper : public ACE_Task<ACE_MT_SYNCH> {
   public:
    Reaper(ConnectionPool* pool, long sleepTime, long maxIdleLifeTime, long maxLifeTime);
    int svc() override;

    // Starts the reaper thread (joinable). 0 on success.
    int start();
    // Asks the thread to end and waits for it; returns at once when none runs.
    void stop();
    bool running() const { return running_.load(); }

    void setSleepTimeMs(long ms);
    void setMaxIdleLifeTime(long seconds);
    void setMaxLifeTime(long seconds);
    long sleepTimeMs() const { return sleepTimeMs_.load(); }
    long maxIdleLifeTime() const { return maxIdleLifeTime_.load(); }
    long maxLifeTime() const { return maxLifeTime_.load(); }

   private:
    ConnectionPool* pool_;
    std::atomic<long> sleepTimeMs_;
    std::atomic<long> maxIdleLifeTime_;
    std::atomic<long> maxLifeTime_;
    std::atomic<bool> running_{false};
    ACE_Thread_Mutex wakeLock_;
    ACE_Condition_Thread_Mutex wake_;
    bool stop_ = false;
  };

  struct Counts {
    int records;
    int inUse;
    int free;
  };

  // A snapshot for monitoring: logins and borrowers now, then totals since
  // the pool was created.
  struct Stats {
    long total;          // logins open
    long inUse;          // logins borrowed
    long free;           // logins free
    long waiting;        // borrowers waiting for a login
    long borrowed;       // logins handed out
    long timedOut;       // borrowers that waited in vain
    long deadDropped;    // free logins found dead and removed
    long reaped;         // logins the reaper closed
    long leaksReported;  // borrows reported as held too long
    long longestWaitMs;  // the longest wait of a borrower, served or not
  };

  // The single pool, created (with its reaper thread) on first call.
  static ConnectionPool* instance();
  // Shuts the single pool down: ends the reaper and closes every login. The
  // next instance() builds a new pool. Logins still held become invalid.
  static void destroyInstance();

  // A login for that server and user, marked in use, or null.
  SybaseConnection* acquireConnection(const std::string& server, const std::string& user,
                                      const std::string& password);
  // Gives a login back: 0, or -1 if it is not one of the pool's.
  int releaseConnection(SybaseConnection* conn);

  // Upper bound on the number of logins, 1 to 20 (default 20).
  void setMaxPoolSize(int n);
  int maxPoolSize() const;

  // Reaper tuning; values apply from the next round. A sleep time of 0 or
  // below is refused (logged) and the old one kept.
  void setReaperSleepTime(long seconds);
  // The same in milliseconds, for programs that need short rounds.
  void setReaperSleepTimeMs(long ms);
  long reaperSleepTimeMs() const;
  void setMaxIdleLifeTime(long seconds);
  void setMaxLifeTime(long seconds);
  // Ends the reaper thread promptly and waits for it. Logins stay open.
  void shutdownReaper();
  bool reaperRunning() const { return reaper_.running(); }

  // Runs one reaper round now, on the calling thread; returns the number of
  // logins removed.
  int reapNow();

  // Records, logins in use and free logins, for monitoring.
  Counts counts() const;
  Stats stats() const;

  // How long a borrower waits for a login when the pool is full, in ms; 0
  // (the default) fails at once. A negative value is refused (logged).
  void setAcquireTimeoutMs(long ms);
  long acquireTimeoutMs() const;
  // How long a borrow may last before it is reported, in ms; 0 (the
  // default) reports none. A negative value is refused (logged).
  void setLeakThresholdMs(long ms);
  long leakThresholdMs() const;

  ~ConnectionPool();
  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;

 private:
  friend class ServiceConnectionSyb;
  struct Waiter;
  // The most logins the pool holds: the upper bound of setMaxPoolSize.
  static const int kSlots = 20;

  // The place of one login. `state` holds a number naming the login (drawn
  // when the place is filled, never reused in the process) times four plus
  // the place's status; the fields between are set while the place is being
  // filled or emptied, under the lock, and stay fixed while it holds a login.
  struct alignas(64) Slot {
    std::atomic<uint64_t> state{0};
    SybaseConnection* sybconn = nullptr;
    std::string server;
    std::string user;
    std::string password;
    time_t creationTime = 0;
    double lifeShare = 1;  // the share of the maximum lifetime it lives, 0.975 to 1
    // Written by the login's holder, read by the reaper and stats().
    std::atomic<time_t> lastReleaseTime{0};
    std::atomic<long long> borrowedAtMs{0};  // monotonic; 0 while free
    std::atomic<unsigned long> borrower{0};
    std::atomic<long> borrows{0};        // this login's borrows so far
    std::atomic<long> leakReported{-1};  // the borrow (by number) reported as held too long
  };
  // Where a service connection's login is: its place, and the state word it
  // put there when it took the login or gave it back. A word that is no
  // longer the place's is a login gone to another borrower or closed.
  struct Ticket {
    int slot = -1;
    uint64_t word = 0;
  };

  ConnectionPool();
  // acquireConnection, first trying the ticket's login without the lock; the
  // ticket is set to the login handed out.
  SybaseConnection* acquire(const std::string& server, const std::string& user, const std::string& password,
                            Ticket* ticket);
  // Marks a login the caller has claimed as borrowed by `thread` at `nowMs`.
  static SybaseConnection* borrow(Slot& slot, unsigned long thread, long long nowMs);
  // Gives a borrowed login back (releaseConnection), found through the ticket
  // when it names it; the ticket then names the free login.
  int giveBack(SybaseConnection* conn, Ticket& ticket);
  // Gives back the borrowed login in `slot`, whose results its holder has
  // read off.
  void putBack(int slot, Ticket& ticket);
  // The place of `conn`, or -1; called with the lock held.
  int slotOf(const SybaseConnection* conn) const;
  // The steps of acquire and release below are called with the lock held.
  SybaseConnection* allocateNewConnection(const std::string& server, const std::string& user,
                                          const std::string& password, Ticket* ticket);
  // Closes the login of a place the caller has claimed and empties it.
  void close(Slot& slot);
  int reap(time_t now);
  // Opens a login in a place already counted in opening_; the lock is let go
  // meanwhile.
  SybaseConnection* open(const std::string& server, const std::string& user, const std::string& password,
                         Ticket* ticket);
  // Waits in line for a login or a place, up to the acquire time-out.
  SybaseConnection* wait(const std::string& server, const std::string& user, const std::string& password,
                         Ticket* ticket);
  int placesTaken() const;
  bool roomForOne() const;
  // Hands free logins and places to the waiters that can take them.
  void serveWaiters();
  void setWaiting();

  Slot slots_[kSlots];
  int size_ = 0;  // places holding a login
  Reaper reaper_;
  std::vector<Waiter*> waiters_;  // in the order they came
  std::atomic<long> waiting_{0};  // waiters_.size(), read by returns without the lock
  int opening_ = 0;               // logins being opened (counted against the size limit)
  long acquireTimeoutMs_ = 0;
  std::atomic<long> leakThresholdMs_{0};
  Stats totals_{};        // the counters since start (the others are filled by stats())
  std::minstd_rand rng_;  // draws the lifetime shares

  static uint64_t logins_;  // the last number given to a login; under the lock
  static int maxPoolSize_;
  static std::atomic<ConnectionPool*> instance_;
  static lock_t lock_;
};

#endif
