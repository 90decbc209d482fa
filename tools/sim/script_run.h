// cdcacm-sim script: runs the commands of a parsed scenario file on the
// machine, one at a time in virtual time, and prints each line with its
// time and line number and what it did or saw. The first failed
// expectation ("FILE:LINE: expectation failed: ...") ends the run; the
// handles still open are closed, the machine is shut down and the verdict
// printed either way.
//
// Environment: host code of the tool; runs on the machine's application
// thread.
#pragma once

#include "machine.h"
#include "script_parse.h"
#include "transcript.h"

#include <string>
#include <vector>

namespace sim {

// The vocabulary of the machine's world: profile names and Win32 errors.
script::Vocabulary ScriptVocabulary();

// Runs the commands (which the parser accepted) and returns the process's
// exit status: 0 when every expectation held and the machine ended clean,
// 1 otherwise.
int RunScript(const std::string& file, const std::vector<script::Command>& commands,
              Machine& machine, Transcript& transcript);

} // namespace sim
