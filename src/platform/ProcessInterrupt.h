#pragma once

namespace parlavox::platform {

// Lets one thread cut short the command that another thread waits for in runProcess(). A raise
// holds until cleared, so one that comes just before the command starts still ends it.
class ProcessInterrupt {
 public:
  // Throws std::system_error when the system has no event descriptor to spare.
  ProcessInterrupt();
  ~ProcessInterrupt();
  ProcessInterrupt(const ProcessInterrupt&) = delete;
  ProcessInterrupt& operator=(const ProcessInterrupt&) = delete;

  // Any thread.
  void raise() const;
  // The thread that runs the commands. Forgets the raises so far.
  void clear() const;
  // Any thread. Readable while raised.
  int fd() const { return fd_; }

 private:
  int fd_;
};

}  // namespace parlavox::platform
