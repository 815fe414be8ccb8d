#include "core/result_text.h"

namespace varnel_cli {
namespace {

constexpr ResultMeaning kCommon[] = {
    {0, "success"},
    {-1, "unknown handle, or the adapter is not connected"},
    {-2, "the command could not be written to the adapter"},
    {-3, "the reply was missing, short or answered another command"},
    {-4, "the reply could not be read, had the wrong length or reported failure"},
    {-5, "the channel is not initialised"},
    {-7, "bad index or argument"},
};

// What a code means for one call; {name} stands for the argument of that name.
struct CallMeaning {
  const char* call;
  int code;
  const char* text;
};

constexpr CallMeaning kCallMeanings[] = {
    {"CAN_GetCANSpeedArg", -4,
     "no bit timing for bit rate {bit rate}: not a rate this adapter has"},
    {"CANFD_GetCANSpeedArg", -4,
     "no bit timing for bit rate {bit rate} with data bit rate {data bit rate}: not a pair this "
     "adapter has"},
    {"IIC_Init", -4,
     "the adapter refused I2C channel {channel} (no such channel, or its settings), or its reply "
     "could not be read"},
    {"GPIO_SendPulses", -4,
     "the adapter refused pulses on pins {pins}: a pin not set as output, or its reply could not "
     "be read"},
};

// `text` with every {name} replaced by the argument of that name.
std::string filled(const char* text, const CallContext& context) {
  std::string out = text;
  for (const auto& [name, value] : context.arguments) {
    const std::string field = "{" + name + "}";
    for (size_t at = out.find(field); at != std::string::npos; at = out.find(field, at))
      out.replace(at, field.size(), value);
  }
  return out;
}

const char* find(int code, std::span<const ResultMeaning> table) {
  for (const auto& entry : table)
    if (entry.code == code) return entry.text;
  return nullptr;
}

}  // namespace

const char* result_text(int code, std::span<const ResultMeaning> family) {
  if (const char* text = find(code, family)) return text;
  if (const char* text = find(code, kCommon)) return text;
  return code > 0 ? "success (a count)" : "unknown result code";
}

std::string describe_result(int code, std::span<const ResultMeaning> family) {
  return std::to_string(code) + " (" + result_text(code, family) + ")";
}

std::string describe_result(int code, const CallContext& context,
                            std::span<const ResultMeaning> family) {
  for (const auto& meaning : kCallMeanings)
    if (meaning.code == code && context.call == meaning.call)
      return std::to_string(code) + " (" + filled(meaning.text, context) + ")";
  return describe_result(code, family);
}

}  // namespace varnel_cli
