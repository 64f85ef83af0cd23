#ifndef DATAACCESS_DB_CONNECTIONPOOL_H
#define DATAACCESS_DB_CONNECTIONPOOL_H

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Task.h>
#include <ace/Thread_Mutex.h>

#include <atomic>
#include <ctime>
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
// Thread safety: every member may be called from any thread at once (one lock guards the pool), except
// destroyInstance(), which must not run while another thread uses the pool.
class ConnectionPool {
 public:
  struct Connection {
    SybaseConnection* sybconn;
    bool available;
    std::string server;
    std::string user;
    std::string password;
    time_t lastReleaseTime;
    time_t creationTime;
  };
  typedef std::vector<Connection> pool_t;
  typedef pool_t::iterator iterator_t;
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

  ~ConnectionPool();
  ConnectionPool(const ConnectionPool&) = delete;
  ConnectionPool& operator=(const ConnectionPool&) = delete;

 private:
  ConnectionPool();
  SybaseConnection* allocateNewConnection(const std::string& server, const std::string& user,
                                          const std::string& password);
  iterator_t removeConnection(iterator_t it);
  int reap(time_t now);

  pool_t pool_;
  Reaper reaper_;

  static int maxPoolSize_;
  static std::atomic<ConnectionPool*> instance_;
  static lock_t lock_;
};

#endif
