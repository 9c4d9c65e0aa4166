#pragma once
// Records are written to the spool when they are sent; QueueToDisk makes what was written durable
// (the spool is synced to the disk), as the service does once before it stops.

class LogPerform {
  public:
    static LogPerform& Instance();

    // Syncs the spool to the disk. Returns at once when nothing was written.
    void QueueToDisk();

    LogPerform(const LogPerform&) = delete;
    LogPerform& operator=(const LogPerform&) = delete;

  private:
    LogPerform() = default;
};
