// The host pseudo-terminal of cdcacm-sim run.
#include "pty.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace sim {

std::unique_ptr<PseudoTerminal> PseudoTerminal::Create(std::string* error) {
    std::unique_ptr<PseudoTerminal> terminal(new PseudoTerminal);
    auto fail = [&](const char* what) {
        *error =
            std::string("cannot create a pseudo-terminal: ") + what + ": " + std::strerror(errno);
        return nullptr;
    };
    terminal->master_ = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (terminal->master_ < 0)
        return fail("posix_openpt");
    if (grantpt(terminal->master_) != 0 || unlockpt(terminal->master_) != 0)
        return fail("grantpt/unlockpt");
    char name[128];
    if (ptsname_r(terminal->master_, name, sizeof name) != 0)
        return fail("ptsname");
    terminal->path_ = name;
    // One open and close of the other side: it puts the master into the
    // hang-up state that tells when no program has the terminal open, and
    // leaves the line raw, so that nothing the modem sends is echoed back
    // or changed before a program sets its own mode.
    int other = open(name, O_RDWR | O_NOCTTY);
    if (other < 0)
        return fail(name);
    termios settings{};
    tcgetattr(other, &settings);
    cfmakeraw(&settings);
    cfsetspeed(&settings, B115200);
    settings.c_cflag |= CLOCAL | CREAD;
    bool set = tcsetattr(other, TCSANOW, &settings) == 0;
    close(other);
    if (!set)
        return fail("tcsetattr");
    return terminal;
}

PseudoTerminal::~PseudoTerminal() {
    if (!link_.empty())
        unlink(link_.c_str());
    if (master_ >= 0)
        close(master_);
}

bool PseudoTerminal::Link(const std::string& link_path, std::string* error) {
    if (symlink(path_.c_str(), link_path.c_str()) != 0) {
        *error = "cannot link " + link_path + " to " + path_ + ": " +
                 (errno == EEXIST ? std::string("the path is taken") : std::strerror(errno));
        return false;
    }
    link_ = link_path;
    return true;
}

termios PseudoTerminal::Settings() const {
    termios settings{};
    tcgetattr(master_, &settings);
    return settings;
}

} // namespace sim
