#include "tools/redfish_gateway/stream_filter.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace event_service {
namespace {

enum class Literal { kText, kTexts, kReferences, kBoolean };
struct FilterProperty {
  std::string_view name;      // in the filter
  std::string_view property;  // of the subscription
  Literal literal;
};
constexpr FilterProperty kProperties[] = {
    {"EventFormatType", "EventFormatType", Literal::kText},
    {"MessageId", "MessageIds", Literal::kTexts},
    {"MetricReportDefinition", "MetricReportDefinitions", Literal::kReferences},
    {"OriginResource", "OriginResources", Literal::kReferences},
    {"RegistryPrefix", "RegistryPrefixes", Literal::kTexts},
    {"ResourceType", "ResourceTypes", Literal::kTexts},
    {"SubordinateResources", "SubordinateResources", Literal::kBoolean},
};

constexpr int kMostParentheses = 16;

/// What has been read so far: the alternatives for each property, all of which must match.
using Clauses = std::map<const FilterProperty*, std::vector<Json>>;

/// Recursive descent; the first fault stays and ends it.
class FilterParser {
 public:
  explicit FilterParser(std::string_view text) : text_(text), rest_(text) {}

  std::variant<Json, BodyFault> Parse() {
    const Clauses clauses = Alternatives(0);
    SkipBlanks();
    if (!rest_.empty()) FailForm();
    if (fault_) return *fault_;
    return Properties(clauses);
  }

 private:
  void Fail(int status, FrontEndMessage message) {
    if (!fault_) fault_ = BodyFault{status, std::move(message)};
    rest_ = {};
  }
  void FailForm() { Fail(400, {"Base.1.12.QueryParameterValueFormatError", {std::string(text_), "$filter"}, {}}); }
  void FailCombination() { Fail(501, {"Base.1.12.QueryNotSupported", {}, {}}); }

  void SkipBlanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(' '), rest_.size())); }

  bool Take(char c) {
    SkipBlanks();
    if (!rest_.starts_with(c)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  std::string_view PeekWord() {
    SkipBlanks();
    return rest_.substr(0, rest_.find_first_of(" ()'"));
  }
  std::string_view TakeWord() {
    const std::string_view word = PeekWord();
    rest_.remove_prefix(word.size());
    return word;
  }
  bool TakeWord(std::string_view expected) {
    if (PeekWord() != expected) return false;
    TakeWord();
    return true;
  }

  Clauses Alternatives(int depth) {
    Clauses clauses = Conjunction(depth);
    while (TakeWord("or")) {
      Clauses other = Conjunction(depth);
      if (fault_) break;
      if (clauses.size() != 1 || other.size() != 1 || clauses.begin()->first != other.begin()->first) {
        FailCombination();
        break;
      }
      std::ranges::move(other.begin()->second, std::back_inserter(clauses.begin()->second));
    }
    return clauses;
  }

  Clauses Conjunction(int depth) {
    Clauses clauses = Comparison(depth);
    while (TakeWord("and")) {
      Clauses other = Comparison(depth);
      clauses.merge(other);  // leaves what is there already
      if (!other.empty()) FailCombination();
    }
    return clauses;
  }

  Clauses Comparison(int depth) {
    if (Take('(')) {
      Clauses clauses;
      if (depth < kMostParentheses) clauses = Alternatives(depth + 1);
      if (!Take(')')) FailForm();
      return clauses;
    }
    const std::string_view name = TakeWord();
    const auto* const property = std::ranges::find(kProperties, name, &FilterProperty::name);
    if (property == std::end(kProperties) || !TakeWord("eq")) {
      FailForm();
      return {};
    }
    return {{property, {Value(*property)}}};
  }

  Json Value(const FilterProperty& property) {
    Json value(Json::value_t::discarded);
    const bool isText = Take('\'');
    const std::string literal = isText ? TakeQuoted() : std::string(TakeWord());
    if (isText != (property.literal != Literal::kBoolean)) {
      Fail(400, {"Base.1.12.QueryParameterValueTypeError", {literal, "$filter"}, {}});
    } else if (!isText && literal != "true" && literal != "false") {
      FailForm();
    } else if (property.literal == Literal::kReferences) {
      value = {{"@odata.id", literal}};
    } else {
      value = isText ? Json(literal) : Json(literal == "true");
    }
    return value;
  }

  // Two quotes inside a text stand for one.
  std::string TakeQuoted() {
    std::string text;
    while (true) {
      const size_t quote = rest_.find('\'');
      if (quote == std::string_view::npos) {
        FailForm();
        return text;
      }
      text += rest_.substr(0, quote);
      rest_.remove_prefix(quote + 1);
      if (!rest_.starts_with('\'')) return text;
      text += '\'';
      rest_.remove_prefix(1);
    }
  }

  std::variant<Json, BodyFault> Properties(const Clauses& clauses) {
    Json properties = Json::object();
    for (const auto& [property, values] : clauses) {
      const bool isArray = property->literal == Literal::kTexts || property->literal == Literal::kReferences;
      if (!isArray && values.size() != 1) FailCombination();
      properties[std::string(property->property)] = isArray ? Json(values) : values.front();
    }
    if (fault_) return *fault_;
    return properties;
  }

  std::string_view text_;
  std::string_view rest_;
  std::optional<BodyFault> fault_;
};

}  // namespace

std::variant<Json, BodyFault> ParseStreamFilter(std::string_view filter) { return FilterParser(filter).Parse(); }

}  // namespace event_service
