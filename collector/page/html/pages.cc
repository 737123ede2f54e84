#include "collector/page/html/pages.h"

#include <map>

#include "collector/page/html/html.h"

namespace quenor::collector {
namespace {

constexpr char kBack[] = "<p><a href=\"/\">Back to the page</a></p>\n";

const char* HelpOf(const std::string& name) {
  static const std::map<std::string, const char*> help = {
      {"policy", "who decides the fields: none, what stands below; or a policy, from the load"},
      {"send_interval_ms", "of every message of a channel, in ms; 0: none, else 15,000 or more"},
      {"max_resend_count", "how often a message is sent again; 0: not said"},
      {"report_duration_s", "seconds between the reports that owners are asked for; 0: not said"},
      {"low_ms", "a policy's least interval"},
      {"high_ms", "a policy's greatest interval"},
      {"low_duration_s", "a policy's least time between reports"},
      {"high_duration_s", "a policy's greatest time between reports; 0: owners are asked for none"},
      {"target_percent", "the use that a policy steers to"},
      {"capacity", "reports a second that a collector takes; a policy's measure"}};
  return help.at(name);
}

std::string Document(const std::string& title, const std::string& body) {
  return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
         "<meta name=\"color-scheme\" content=\"light dark\">\n<title>" +
         Escape(title) +
         "</title>\n<link rel=\"stylesheet\" href=\"/style.css\">\n<link rel=\"icon\" "
         "href=\"/icon.svg\"></head>\n<body>\n<h1>" +
         Escape(title) + "</h1>\n" + body + "</body></html>\n";
}

std::string Hidden(const std::string& name, const std::string& value) {
  return "<input type=\"hidden\" name=\"" + Escape(name) + "\" value=\"" + Escape(value) + "\">\n";
}

std::string Begin(const FormValues& values) {
  return "<form method=\"post\" action=\"/control\" autocomplete=\"off\">\n" +
         Hidden("token", values.token) + Hidden("revision", std::to_string(values.revision));
}

std::string PolicyChoice(const std::string& chosen) {
  std::string html = "<select id=\"policy\" name=\"policy\">";
  for (const char* const kind : {"none", "fixed", "brake", "pace", "steer"}) {
    html += std::string("<option") + (chosen == kind ? " selected" : "") + ">" + kind + "</option>";
  }
  return html + "</select>";
}

std::string FormOf(const FormValues& values) {
  if (!values.problem.empty()) {
    return "<p class=\"bad\" id=\"no-form\">There is no form, as what is set is not known: " +
           Escape(values.problem) + ". <a href=\"/\">Load the page again.</a></p>\n";
  }
  std::string html = Begin(values);
  for (const auto& [name, value] : values.fields) {
    html += "<p><label for=\"" + name + "\">" + name + "</label>";
    if (name == "policy") {
      html += PolicyChoice(value);
    } else {
      html += "<input id=\"" + name + "\" name=\"" + name + "\" inputmode=\"numeric\" value=\"" +
              Escape(value) + "\">";
    }
    html += std::string(" <small>") + HelpOf(name) + "</small></p>\n";
  }
  return html + "<p><button>Look at the change</button></p></form>\n";
}

std::string TableOf(const Changes& changes) {
  Table table("Changes", {"setting", "old", "new"});
  for (const FieldChange& change : changes) {
    table.AddRow({{change.name}, {change.before}, {change.after}});
  }
  return table.Finish();
}

}  // namespace

std::string MainPage(const std::string& stream, const std::string& time, const std::string& tables,
                     const FormValues& values) {
  return Document(
      "Collectors of stream " + stream,
      "<p id=\"lost\" class=\"bad\" role=\"alert\" hidden>This page has lost its server; "
      "what stands below is old.</p>\n<p><time id=\"time\">" +
          Escape(time) + "</time></p>\n<main id=\"tables\">\n" + tables +
          "</main>\n<noscript><p><a href=\"/\">Look again</a> (with scripts the page does so "
          "every second)</p></noscript>\n<h2 id=\"change\">Change what collectors say</h2>\n" +
          FormOf(values) + "<script src=\"/page.js\"></script>\n");
}

std::string FormPage(const std::string& title, const std::string& message,
                     const FormValues& values) {
  return Document(title, "<p class=\"bad\" role=\"alert\">" + Escape(message) + "</p>\n" +
                             FormOf(values) + kBack);
}

std::string ConfirmPage(const FormValues& values, const Changes& changes, bool brings_interval) {
  std::string html = "<p>Every collector will say so within seconds.</p>\n" + TableOf(changes);
  if (brings_interval) {
    html +=
        "<p class=\"bad\">An interval is for ever: no reply takes it back. A channel that was told "
        "one waits for it before each of its messages, urgent ones and repeats, too.</p>\n";
  }
  html += Begin(values) + Hidden("confirmed", "yes");
  for (const auto& [name, value] : values.fields) html += Hidden(name, value);
  return Document("Change this?",
                  html + "<p><button id=\"confirm\">Change it</button></p></form>\n" + kBack);
}

std::string DonePage(uint64_t revision, const Changes& changes) {
  return Document("Changed", "<p class=\"good\" id=\"done\">Revision " + std::to_string(revision) +
                                 " is set.</p>\n" +
                                 (changes.empty() ? std::string() : TableOf(changes)) + kBack);
}

std::string MessagePage(const std::string& title, const std::string& message) {
  return Document(title, "<p class=\"bad\" role=\"alert\">" + Escape(message) + "</p>\n" + kBack);
}

}  // namespace quenor::collector
