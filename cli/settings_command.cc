// pkgdlv settings list|get|set|delete|defaults: the agent's settings store
// from the command line.
#include <cstdint>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "agent/settings_store.h"
#include "cli/command_registry.h"
#include "records/delivery_settings.h"
#include "util/format.h"
#include "util/strings.h"

namespace pkgdlv::cli {
namespace {

struct SettingsArguments {
  std::string key;
  std::string name;
  std::string value;
  bool json = false;
  bool text = false;
};

std::string Describe(const SettingValue& value) {
  if (value.type == SettingValue::Type::kText) return "\"" + value.text + "\"";
  return Format("%u (0x%08X)", value.number, value.number);
}

nlohmann::json ToJson(const SettingValue& value) {
  if (value.type == SettingValue::Type::kText) return value.text;
  return value.number;
}

// Decimal (negative numbers become their 32-bit two's complement) or "0x" hex.
uint32_t ParseNumberArgument(const std::string& text) {
  std::string_view trimmed = TrimAscii(text);
  if (StartsWithNoCase(trimmed, "0x")) {
    if (std::optional<uint32_t> hex = ParseHex32(trimmed)) return *hex;
  } else if (std::optional<int64_t> n = ParseInt64(trimmed); n && *n >= INT32_MIN && *n <= UINT32_MAX) {
    return static_cast<uint32_t>(*n);
  }
  throw CommandFailure{"not a 32-bit number: '" + text + "' (use --text to store a text)"};
}

void List(SettingsStore& store, const SettingsArguments& args) {
  std::vector<NamedSetting> settings = store.List(args.key);
  if (args.json) {
    nlohmann::json out = nlohmann::json::array();
    for (const NamedSetting& s : settings) {
      out.push_back({{"key", s.key},
                     {"name", s.name},
                     {"type", s.value.type == SettingValue::Type::kText ? "text" : "number"},
                     {"value", ToJson(s.value)}});
    }
    std::cout << out.dump(2) << "\n";
    return;
  }
  const std::string* current_key = nullptr;
  for (const NamedSetting& s : settings) {
    if (!current_key || *current_key != s.key) {
      std::cout << s.key << "\n";
      current_key = &s.key;
    }
    std::cout << "  " << s.name << " = " << Describe(s.value) << "\n";
  }
}

void Get(SettingsStore& store, const SettingsArguments& args) {
  std::optional<SettingValue> value = store.Get(args.key, args.name);
  if (!value) throw CommandFailure{"no value '" + args.name + "' under '" + args.key + "'"};
  if (value->type == SettingValue::Type::kText) {
    std::cout << value->text << "\n";
  } else {
    std::cout << value->number << "\n";
  }
}

void Set(SettingsStore& store, const SettingsArguments& args) {
  SettingValue value =
      args.text ? SettingValue::Text(args.value) : SettingValue::Number(ParseNumberArgument(args.value));
  store.Set(args.key, args.name, value);
}

void Delete(SettingsStore& store, const SettingsArguments& args) {
  if (!store.Delete(args.key, args.name)) {
    throw CommandFailure{"no value '" + args.name + "' under '" + args.key + "'"};
  }
}

// Reads every delivery setting as the component does, which writes the
// defaults of missing values, and shows what is stored beside what is used.
void Defaults(AgentServices& services, const SettingsArguments& args) {
  DeliverySettings delivery(*services.settings, *services.log);
  nlohmann::json out = nlohmann::json::array();
  for (const DeliverySettingRule& rule : DeliverySettings::Rules()) {
    uint64_t effective = delivery.Read(rule.id);
    std::optional<SettingValue> stored = services.settings->Get(kDeliverySettingsKey, rule.name);
    std::optional<int64_t> stored_number;
    if (stored && stored->type == SettingValue::Type::kNumber) {
      stored_number = rule.read_unsigned ? int64_t{stored->number} : int64_t{static_cast<int32_t>(stored->number)};
    }
    if (args.json) {
      out.push_back({{"name", rule.name},
                     {"stored", stored_number ? nlohmann::json(*stored_number) : nlohmann::json()},
                     {"effective", effective},
                     {"unit", rule.result_unit}});
      continue;
    }
    std::string stored_text = stored_number ? std::to_string(*stored_number) : "-";
    std::string effective_text = std::to_string(effective);
    if (!rule.result_unit.empty()) effective_text += " " + std::string(rule.result_unit);
    std::cout << Format("%-48ls stored %-10ls effective %ls", rule.name, stored_text, effective_text) << "\n";
  }
  if (args.json) std::cout << out.dump(2) << "\n";
}

void Install(CLI::App& app, Context& context) {
  CLI::App* settings = app.add_subcommand("settings", "Show and change values of the agent's settings store");
  settings->require_subcommand(1);
  auto args = std::make_shared<SettingsArguments>();
  auto store = [&context]() -> SettingsStore& { return *context.services().settings; };

  CLI::App* list = settings->add_subcommand("list", "List the values under a key (all values without one)");
  list->add_option("KEY", args->key, "Key path, e.g. 'Communications\\Package Delivery'");
  list->add_flag("--json", args->json, "Print a JSON array of {key, name, type, value}");
  list->callback([store, args] { List(store(), *args); });

  CLI::App* get = settings->add_subcommand("get", "Print one value");
  get->add_option("KEY", args->key, "Key path")->required();
  get->add_option("NAME", args->name, "Value name")->required();
  get->callback([store, args] { Get(store(), *args); });

  CLI::App* set = settings->add_subcommand("set", "Write one value (a 32-bit number unless --text)");
  set->add_option("KEY", args->key, "Key path")->required();
  set->add_option("NAME", args->name, "Value name")->required();
  set->add_option("VALUE", args->value, "Decimal (negative allowed) or 0x hexadecimal; any text with --text")
      ->required();
  set->add_flag("--text", args->text, "Store the value as text");
  set->callback([store, args] { Set(store(), *args); });

  CLI::App* remove = settings->add_subcommand("delete", "Remove one value");
  remove->add_option("KEY", args->key, "Key path")->required();
  remove->add_option("NAME", args->name, "Value name")->required();
  remove->callback([store, args] { Delete(store(), *args); });

  CLI::App* defaults =
      settings->add_subcommand("defaults", "Read every delivery setting (writing missing defaults) and show them");
  defaults->add_flag("--json", args->json, "Print a JSON array of {name, stored, effective, unit}");
  defaults->callback([&context, args] { Defaults(context.services(), *args); });
}

const CommandRegistration registration(40, Install);

}  // namespace
}  // namespace pkgdlv::cli
