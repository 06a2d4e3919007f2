/// Judges the properties of a request body one by one against the property table.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "requests/answer.h"
#include "resource_store/store_encoding.h"
#include "subscriptions/judgement/property_table.h"

namespace event_service {

/// Collects what is wrong with a body. Members that are passed over (control fields, annotations) are not looked at.
class PropertyJudge {
 public:
  /// `circumstances` outlive the judge.
  explicit PropertyJudge(const BodyCircumstances& circumstances) : circumstances_(circumstances) {}

  /// Judges top-level properties, in key order.
  void JudgeProperties(const Json::const_iterator& first, const Json::const_iterator& last);

  /// One message for each fault, in the order in which they were found, as far as an answer holds them.
  const std::vector<Message>& Faults() const { return faults_; }
  /// Whether a value was unacceptable; otherwise every fault is a property that a client cannot write here.
  bool HasUnacceptableValue() const { return hasUnacceptableValue_; }
  /// The header validator module failed (one line was logged): the body cannot be judged.
  bool ModuleFailed() const { return moduleFailed_; }

 private:
  void JudgeMembers(const Json::const_iterator& first, const Json::const_iterator& last,
                    std::span<const PropertyRule> rules, const std::string& parentPath);
  void JudgeValue(const PropertyRule& rule, const Json& value, const std::string& path);
  std::optional<Fault> CheckValue(const PropertyRule& rule, const Json& value) const;
  std::optional<Fault> CheckTextValue(const PropertyRule& rule, const Json& value) const;
  bool TakesNull(const PropertyRule& rule) const;
  void JudgeElements(const PropertyRule& rule, const Json& array, const std::string& path);
  void JudgeReference(const Json& value, const std::string& path);
  void JudgeHeaderArray(const Json& value);
  void Refuse(Fault fault, const Json& value, const std::string& path);
  void Report(Fault fault, const Json& value, const std::string& path);

  const BodyCircumstances& circumstances_;
  std::vector<Message> faults_;
  bool hasUnacceptableValue_ = false;
  bool moduleFailed_ = false;
};

}  // namespace event_service
