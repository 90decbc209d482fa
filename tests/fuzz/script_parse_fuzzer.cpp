// Fuzzes the scenario language's parser with arbitrary text: it must end
// with commands or one error, within its stated bounds, whatever the file
// says. What it accepts must also hold together: every command carries a
// line of the file, in order, and nothing it keeps outgrows its bound.
#include "fuzz_check.h"
#include "script_parse.h"

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace script = sim::script;

namespace {

// As the tool's vocabulary looks: a few profiles and Win32 error names.
const script::Vocabulary& Words() {
    static const script::Vocabulary words{{"ordinary", "busy", "composite", "stalling"},
                                          {{"ERROR_FILE_NOT_FOUND", 2},
                                           {"ERROR_ACCESS_DENIED", 5},
                                           {"ERROR_INVALID_HANDLE", 6},
                                           {"ERROR_GEN_FAILURE", 31},
                                           {"ERROR_OPERATION_ABORTED", 995},
                                           {"ERROR_IO_PENDING", 997}}};
    return words;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view text(reinterpret_cast<const char*>(data), size);
    script::Parsed parsed = script::Parse(text, Words());
    if (parsed.error) {
        FUZZ_CHECK(parsed.error->line >= 0 && size_t(parsed.error->line) <= script::kMaxLines + 1);
        FUZZ_CHECK(!parsed.error->message.empty());
        return 0;
    }
    FUZZ_CHECK(size <= script::kMaxFileBytes);
    int line = 0;
    for (const script::Command& command : parsed.commands) {
        FUZZ_CHECK(command.line > line); // one command a line, in order
        FUZZ_CHECK(command.line >= 1 && size_t(command.line) <= script::kMaxLines);
        line = command.line;
        FUZZ_CHECK(command.source.size() <= script::kMaxLineChars);
        FUZZ_CHECK(command.name.size() <= script::kMaxNameChars);
        FUZZ_CHECK(command.within_ms >= -1 && command.within_ms <= script::kMaxTimeMs);
        FUZZ_CHECK(command.bytes.size() <= script::kMaxStringBytes);
        // The quoted form reads back as the same bytes.
        if (!command.bytes.empty() && command.bytes.size() <= script::kMaxStringBytes / 4) {
            std::string again = "plug m\npush m " + script::Quote(command.bytes) + "\n";
            script::Parsed reread = script::Parse(again, Words());
            FUZZ_CHECK(!reread.error && reread.commands.size() == 2 &&
                       reread.commands[1].bytes == command.bytes);
        }
    }
    return 0;
}
