// The pseudo-terminal that cdcacm-sim run offers to the programs of the
// host: its path (and an optional symbolic link to it), whether a program
// has it open, the line settings that program set, and its master side for
// the bytes.
//
// Environment: host code of the tool, used from one host thread (the
// bridge's terminal thread) after creation.
#pragma once

#include <memory>
#include <poll.h>
#include <string>
#include <termios.h>

namespace sim {

class PseudoTerminal {
  public:
    // A new terminal in raw mode at 115200 8N1, or null with the reason.
    static std::unique_ptr<PseudoTerminal> Create(std::string* error);
    ~PseudoTerminal(); // closes the master side and removes the link
    PseudoTerminal(const PseudoTerminal&) = delete;
    PseudoTerminal& operator=(const PseudoTerminal&) = delete;

    const std::string& Path() const { return path_; }
    // A symbolic link at link_path to the terminal; refused when something
    // is there already.
    bool Link(const std::string& link_path, std::string* error);
    int Master() const { return master_; } // non-blocking

    // The master side sees a hang-up while no program has the terminal
    // open: the state is armed at creation by one open and close.
    static bool ProgramPresent(short poll_events) { return !(poll_events & POLLHUP); }
    // The line settings the program set (the pair shares them).
    termios Settings() const;

  private:
    PseudoTerminal() = default;
    int master_ = -1;
    std::string path_;
    std::string link_;
};

} // namespace sim
