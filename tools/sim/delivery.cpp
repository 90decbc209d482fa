// The check of what reached the application against what was sent.
#include "delivery.h"

#include "script_parse.h"

#include <algorithm>

namespace sim {

void Reception::Read(const std::vector<uint8_t>& bytes, bool by_client) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    by_client_.insert(by_client_.end(), bytes.size(), by_client);
}

// Whatever lies between two flags is a frame's, plain text between two
// PPP sessions too, which only loses a little of the check.
std::vector<uint8_t> Reception::PlainText() const {
    constexpr uint8_t kFlag = 0x7e;
    size_t first = bytes_.size(), last = bytes_.size();
    for (size_t i = 0; i < bytes_.size(); ++i)
        if (bytes_[i] == kFlag) {
            if (first == bytes_.size())
                first = i;
            last = i;
        }
    std::vector<uint8_t> text;
    for (size_t i = 0; i < bytes_.size(); ++i)
        if (!by_client_[i] && (i < first || i > last)) // no flag: first and last are the end
            text.push_back(bytes_[i]);
    return text;
}

namespace {

// How many leading items of got are a subsequence of sent, in order.
template <typename Item>
size_t Matched(const std::vector<Item>& got, const std::vector<Item>& sent) {
    size_t g = 0;
    for (size_t s = 0; s < sent.size() && g < got.size(); ++s)
        if (sent[s] == got[g])
            ++g;
    return g;
}

// The byte at with a little around it, in the scenario language's quotes.
std::string Around(const std::vector<uint8_t>& bytes, size_t at) {
    size_t from = at > 16 ? at - 16 : 0;
    size_t to = std::min(bytes.size(), at + 16);
    auto quote = [&](size_t begin, size_t end) {
        return script::Quote(
            std::vector<uint8_t>(bytes.begin() + long(begin), bytes.begin() + long(end)));
    };
    return quote(from, at) + " [" + quote(at, at + 1) + "] " + quote(at + 1, to);
}

} // namespace

std::optional<std::string> CheckDelivery(const Reception& reception,
                                         const std::vector<sm::Modem::ToHost>& sent) {
    std::vector<uint8_t> sent_text;
    std::vector<std::vector<uint8_t>> sent_frames;
    for (const sm::Modem::ToHost& stream : sent) {
        sent_text.insert(sent_text.end(), stream.text.begin(), stream.text.end());
        sent_frames.insert(sent_frames.end(), stream.frames.begin(), stream.frames.end());
    }
    std::vector<uint8_t> text = reception.PlainText();
    size_t matched = Matched(text, sent_text);
    if (matched < text.size())
        return "the application read " + Around(text, matched) + " (plain byte " +
               std::to_string(matched) + " of " + std::to_string(text.size()) +
               "), which the modem did not send in that order";
    matched = Matched(reception.Frames(), sent_frames);
    if (matched < reception.Frames().size())
        return "the PPP client accepted frame " + std::to_string(matched + 1) + " of " +
               std::to_string(reception.Frames().size()) + " (" +
               std::to_string(reception.Frames()[matched].size()) +
               " bytes), which the modem did not send in that order";
    return std::nullopt;
}

} // namespace sim
