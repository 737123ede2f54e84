#include "collector/provision/nodes.h"

#include <httplib.h>
#include <rapidjson/document.h>

#include <algorithm>

namespace quenor::collector {
namespace {

constexpr int kPatienceSeconds = 5;
constexpr char kRemedy[] = "stop it, move its store_dir away and start it, and it copies all anew";

uint64_t Number(const rapidjson::Value& object, const char* name) {
  const auto found = object.FindMember(name);
  return found != object.MemberEnd() && found->value.IsUint64() ? found->value.GetUint64() : 0;
}

const rapidjson::Value* Member(const rapidjson::Value& object, const char* name) {
  if (!object.IsObject()) return nullptr;
  const auto found = object.FindMember(name);
  return found == object.MemberEnd() ? nullptr : &found->value;
}

// The part of the answer about the stream, of whatever account; null: there is none.
const rapidjson::Value* FindStream(const rapidjson::Value& answer, const std::string& stream) {
  const rapidjson::Value* const accounts = Member(answer, "account_details");
  if (accounts == nullptr || !accounts->IsArray()) return nullptr;
  for (const rapidjson::Value& account : accounts->GetArray()) {
    const rapidjson::Value* const streams = Member(account, "stream_detail");
    if (streams == nullptr || !streams->IsArray()) continue;
    for (const rapidjson::Value& each : streams->GetArray()) {
      const rapidjson::Value* const name = Member(each, "name");
      if (name != nullptr && name->IsString() && name->GetString() == stream) return &each;
    }
  }
  return nullptr;
}

// "2024-05-01T12:34:56.78Z" with all nine digits of its second, so that texts compare as times do.
std::string FullTime(std::string text) {
  if (!text.empty() && text.back() == 'Z') text.pop_back();
  if (text.find('.') == std::string::npos) text += '.';
  const size_t digits = text.size() - text.find('.') - 1;
  return text + std::string(digits < 9 ? 9 - digits : 0, '0');
}

// Whether both have come equally far, so that they must be the same.
bool AreLevel(const NodeState& node, const NodeState& other) {
  return node.problem.empty() && other.problem.empty() &&
         node.first_sequence == other.first_sequence && node.last_sequence == other.last_sequence &&
         node.messages == other.messages;
}

// A node that has other messages in the place of some holds as many, but not as many bytes.
std::string OddBytesOf(const std::vector<NodeState>& nodes) {
  const auto alike = [&nodes](const NodeState& node) {
    return std::count_if(nodes.begin(), nodes.end(), [&node](const NodeState& other) {
      return AreLevel(node, other) && node.bytes == other.bytes;
    });
  };
  for (const NodeState& node : nodes) {
    for (const NodeState& other : nodes) {
      if (!AreLevel(node, other) || node.bytes == other.bytes || alike(node) > alike(other)) {
        continue;
      }
      const std::string whose = alike(node) == alike(other) ? " or " + other.url : "";
      return node.url + whose + " is no copy: up to message " + std::to_string(node.last_sequence) +
             " " + node.url + " holds " + std::to_string(node.bytes) + " bytes and " + other.url +
             " " + std::to_string(other.bytes) +
             ", so it has other messages in the place of some; " + kRemedy;
    }
  }
  return std::string();
}

}  // namespace

NodeState ReadNode(const std::string& answer, const std::string& stream) {
  NodeState node;
  rapidjson::Document document;
  document.Parse(answer.data(), answer.size());
  if (document.HasParseError() || !document.IsObject()) {
    node.problem = "its answer is no JSON object";
    return node;
  }
  if (const auto* config = Member(document, "config"); config != nullptr && config->IsObject()) {
    node.max_storage_bytes = Number(*config, "max_storage");
  }
  node.storage_bytes = Number(document, "storage");
  const rapidjson::Value* const found = FindStream(document, stream);
  const rapidjson::Value* const state = found == nullptr ? nullptr : Member(*found, "state");
  if (state == nullptr || !state->IsObject()) {
    node.problem = "holds no replica of stream " + stream;
    return node;
  }
  node.first_sequence = Number(*state, "first_seq");
  node.last_sequence = Number(*state, "last_seq");
  node.messages = Number(*state, "messages");
  node.bytes = Number(*state, "bytes");
  const rapidjson::Value* const time = Member(*state, "last_ts");
  if (time != nullptr && time->IsString()) node.last_time = FullTime(time->GetString());
  const rapidjson::Value* const cluster = Member(*found, "cluster");
  const rapidjson::Value* const leader = cluster == nullptr ? nullptr : Member(*cluster, "leader");
  if (leader != nullptr && leader->IsString()) node.leader = leader->GetString();
  return node;
}

NodeState AskNode(const std::string& url, const std::string& stream) {
  httplib::Client client(url);
  client.set_connection_timeout(kPatienceSeconds);
  client.set_read_timeout(kPatienceSeconds);
  const httplib::Result result = client.Get("/jsz?streams=1&config=1");
  NodeState node;
  if (!result) {
    node.problem = "does not answer (" + httplib::to_string(result.error()) + ")";
  } else if (result->status != 200) {
    node.problem = "answers with status " + std::to_string(result->status);
  } else {
    node = ReadNode(result->body, stream);
  }
  node.url = url;
  return node;
}

std::string DivergenceOf(const std::vector<NodeState>& nodes) {
  const std::string odd = OddBytesOf(nodes);
  if (!odd.empty()) return odd;
  for (const NodeState& node : nodes) {
    for (const NodeState& other : nodes) {
      const bool both = node.problem.empty() && other.problem.empty();
      const bool one_leader = node.leader == other.leader;  // Each leader has its own clock.
      if (!both || !one_leader || node.last_time < other.last_time ||
          node.last_sequence >= other.last_sequence) {
        continue;
      }
      return node.url + " is no copy: its message " + std::to_string(node.last_sequence) +
             " is no older than message " + std::to_string(other.last_sequence) + " of " +
             other.url + ", so it lacks " +
             std::to_string(other.last_sequence - node.last_sequence) + " or more; " + kRemedy;
    }
  }
  return std::string();
}

std::string MismatchOf(const std::vector<NodeState>& nodes, uint64_t last_sequence) {
  for (const NodeState& node : nodes) {
    if (!node.problem.empty()) return node.url + " " + node.problem;
    const NodeState& other = nodes.front();
    if (node.first_sequence != other.first_sequence) {
      return node.url + " begins at " + std::to_string(node.first_sequence) + ", " + other.url +
             " at " + std::to_string(other.first_sequence);
    }
    if (node.holes() != other.holes()) {
      return node.url + " misses " + std::to_string(node.holes()) + " between first and last, " +
             other.url + " " + std::to_string(other.holes());
    }
    if (node.last_sequence < last_sequence) {
      return node.url + " ends at " + std::to_string(node.last_sequence) + ", another at " +
             std::to_string(last_sequence) + " or later";
    }
  }
  return std::string();
}

}  // namespace quenor::collector
