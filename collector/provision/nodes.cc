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
bool HaveOddBytes(const NodeState& node, const NodeState& other) {
  return AreLevel(node, other) && node.bytes != other.bytes;
}

bool IsNumberedLower(const NodeState& node, const NodeState& other) {
  const bool one_leader = node.leader == other.leader;  // Each leader has its own clock.
  return one_leader && node.last_time >= other.last_time &&
         node.last_sequence < other.last_sequence;
}

bool AreNumberedApart(const NodeState& node, const NodeState& other) {
  return IsNumberedLower(node, other) || IsNumberedLower(other, node);
}

// What is at odds, what follows from it if the node is the wrong one, and what to do.
std::string NoCopy(const Outvoted<NodeState>& outvoted, const std::string& what,
                   const std::string& so) {
  const std::string why = " no copy: " + what + ", so it " + so;
  if (!outvoted.is_tie) return "is" + why + "; " + kRemedy;
  return "may be" + why + ", or " + outvoted.by->url + " is none; a third node tells which";
}

std::string DivergenceOf(const NodeState& node, const std::vector<const NodeState*>& nodes) {
  const std::string last = std::to_string(node.last_sequence);
  if (const auto odd = OutvotedBy(node, nodes, HaveOddBytes); odd.by != nullptr) {
    return NoCopy(odd,
                  "up to message " + last + " it holds " + std::to_string(node.bytes) +
                      " bytes and " + odd.by->url + " " + std::to_string(odd.by->bytes),
                  "has other messages in the place of some");
  }
  const auto apart = OutvotedBy(node, nodes, AreNumberedApart);
  if (apart.by == nullptr) return std::string();
  const uint64_t others = apart.by->last_sequence;
  const bool lacks = node.last_sequence < others;
  return NoCopy(apart,
                "its message " + last + (lacks ? " is no older" : " is no newer") +
                    " than message " + std::to_string(others) + " of " + apart.by->url,
                lacks ? "lacks " + std::to_string(others - node.last_sequence) + " or more"
                      : "has " + std::to_string(node.last_sequence - others) + " or more too many");
}

std::vector<const NodeState*> ThoseThatAnswer(const std::vector<NodeState>& nodes) {
  std::vector<const NodeState*> those;
  for (const NodeState& node : nodes) {
    if (node.problem.empty()) those.push_back(&node);
  }
  return those;
}

}  // namespace

NodeState ReadNode(const std::string& answer, const std::string& stream) {
  NodeState node;
  rapidjson::Document document;
  document.Parse<rapidjson::kParseIterativeFlag>(answer.data(), answer.size());
  if (document.HasParseError() || !document.IsObject()) {
    node.problem = "its answer is no JSON object";
    return node;
  }
  if (const auto* config = Member(document, "config"); config != nullptr && config->IsObject()) {
    node.max_storage_bytes = Number(*config, "max_storage");
  }
  node.storage_bytes = Number(document, "storage");
  const rapidjson::Value* const id = Member(document, "server_id");
  if (id != nullptr && id->IsString()) node.id = id->GetString();
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
  const rapidjson::Value* const config = Member(*found, "config");
  if (config != nullptr && config->IsObject()) node.replicas = Number(*config, "num_replicas");
  const rapidjson::Value* const cluster = Member(*found, "cluster");
  const rapidjson::Value* const leader = cluster == nullptr ? nullptr : Member(*cluster, "leader");
  if (leader != nullptr && leader->IsString()) node.leader = leader->GetString();
  return node;
}

NodeState AskNode(const std::string& url, const std::string& stream) {
  NodeState node;
  try {
    httplib::Client client(url);
    client.set_connection_timeout(kPatienceSeconds);
    client.set_read_timeout(kPatienceSeconds);
    const httplib::Result result = client.Get("/jsz?streams=1&config=1");
    if (!result) {
      node.problem = "does not answer (" + httplib::to_string(result.error()) + ")";
    } else if (result->status != 200) {
      node.problem = "answers with status " + std::to_string(result->status);
    } else {
      node = ReadNode(result->body, stream);
    }
  } catch (const std::exception& error) {  // An address that is none.
    node.problem = std::string("cannot be asked (") + error.what() + ")";
  }
  node.url = url;
  return node;
}

std::vector<std::string> DivergencesOf(const std::vector<NodeState>& nodes) {
  const std::vector<const NodeState*> those = ThoseThatAnswer(nodes);
  std::vector<std::string> divergences;
  for (const NodeState& node : nodes) {
    divergences.push_back(node.problem.empty() ? DivergenceOf(node, those) : std::string());
  }
  return divergences;
}

std::string DivergenceOf(const std::vector<NodeState>& nodes) {
  const std::vector<std::string> divergences = DivergencesOf(nodes);
  for (size_t i = 0; i < nodes.size(); ++i) {
    if (!divergences[i].empty()) return nodes[i].url + " " + divergences[i];
  }
  return std::string();
}

std::string MismatchOf(const std::vector<NodeState>& nodes, uint64_t first_sequence,
                       uint64_t last_sequence) {
  const std::vector<const NodeState*> all = ThoseThatAnswer(nodes);
  const auto outvoter = [&all](const NodeState& node, const auto& value_of) {
    return OutvotedBy(node, all,
                      [&](const NodeState& one, const NodeState& other) {
                        return value_of(one) != value_of(other);
                      })
        .by;
  };
  const auto has_begun = [&](const NodeState& node) {
    return node.first_sequence >= first_sequence;
  };
  const auto holes = [](const NodeState& node) { return node.holes(); };
  const auto has_come = [&](const NodeState& node) { return node.last_sequence >= last_sequence; };
  std::string too_far;
  for (const NodeState& node : nodes) {
    if (!node.problem.empty()) return node.url + " " + node.problem;
    if (const NodeState* const other = outvoter(node, has_begun)) {
      return node.url + " begins at " + std::to_string(node.first_sequence) + ", " + other->url +
             " at " + std::to_string(other->first_sequence);
    }
    if (const NodeState* const other = outvoter(node, holes)) {
      return node.url + " misses " + std::to_string(node.holes()) + " between first and last, " +
             other->url + " " + std::to_string(other->holes());
    }
    const NodeState* const other = outvoter(node, has_come);
    if (other == nullptr) continue;
    if (!has_come(node)) {
      return node.url + " ends at " + std::to_string(node.last_sequence) + ", another at " +
             std::to_string(last_sequence) + " or later";
    }
    if (too_far.empty()) {
      too_far = node.url + " ends at " + std::to_string(node.last_sequence) + ", " + other->url +
                " only at " + std::to_string(other->last_sequence);
    }
  }
  return too_far;
}

}  // namespace quenor::collector
