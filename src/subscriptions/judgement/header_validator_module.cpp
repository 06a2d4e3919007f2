#include "subscriptions/judgement/header_validator_module.h"

#include <unistd.h>
#include <lua.hpp>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "foundation/durable_file.h"
#include "foundation/logging.h"

namespace event_service {
namespace {

constexpr const char* kFunctionName = "validateHttpHeaderByPattern";

// Of one loading or one judgement; seconds on the board. A module that loops without end must not take the listener
// with it.
constexpr int kMostInstructions = 50'000'000;

struct LuaStateDeleter {
  void operator()(lua_State* lua) const { lua_close(lua); }
};
using LuaState = std::unique_ptr<lua_State, LuaStateDeleter>;

// A Lua error leaves the functions between it and its handler without running destructors. What can raise one is in
// the functions from here to the end mark, which are called through lua_cpcall and hold nothing that needs destruction.

/// From here on every instruction raises, in every coroutine: a single error could be caught, and the loop go on.
void StopRunaway(lua_State* lua, lua_Debug* /*activation*/) {
  lua_sethook(lua, StopRunaway, LUA_MASKCOUNT, 1);
  luaL_error(lua, "too many instructions");
}

struct ModuleFile {
  const char* name;        // of the module
  const char* chunkName;   // for messages
  const char* neighbours;  // where the module finds what it requires: "<its folder>/?.lua;"
  std::string_view text;
};

int DoNothing(lua_State* /*lua*/) { return 0; }

/// Takes a function out of a library: what calls it goes on without effect.
void Disarm(lua_State* lua, const char* library, const char* function) {
  lua_getglobal(lua, library);
  lua_pushcfunction(lua, DoNothing);
  lua_setfield(lua, -2, function);
  lua_pop(lua, 1);
}

/// Compiled code would not be interrupted, and needs memory that is both writable and executable.
void KeepInterruptible(lua_State* lua) {
  luaJIT_setmode(lua, 0, LUAJIT_MODE_ENGINE | LUAJIT_MODE_OFF);
  Disarm(lua, "jit", "on");
  Disarm(lua, "debug", "sethook");
}

/// Puts the module's folder in front of the places that "require" searches.
void SearchFolderFirst(lua_State* lua, const char* neighbours) {
  lua_getglobal(lua, "package");
  lua_pushstring(lua, neighbours);
  lua_getfield(lua, -2, "path");
  lua_concat(lua, 2);
  lua_setfield(lua, -2, "path");
  lua_pop(lua, 1);
}

/// Pops a value. True when it was the module's function, or a table that has it: the function is in the registry then.
bool TakeFunction(lua_State* lua) {
  if (lua_istable(lua, -1)) {
    lua_getfield(lua, -1, kFunctionName);
    lua_remove(lua, -2);
  }
  if (lua_isfunction(lua, -1)) {
    lua_setfield(lua, LUA_REGISTRYINDEX, kFunctionName);
    return true;
  }
  lua_pop(lua, 1);
  return false;
}

/// A collection begins as soon as the last one has ended: by default the state grows to twice its size first.
void CollectGarbageEarly(lua_State* lua) { lua_gc(lua, LUA_GCSETPAUSE, 100); }

/// Argument: a ModuleFile. Leaves the module's function in the registry.
int LoadFunction(lua_State* lua) {
  const auto* file = static_cast<const ModuleFile*>(lua_touserdata(lua, 1));
  CollectGarbageEarly(lua);
  luaL_openlibs(lua);
  KeepInterruptible(lua);
  SearchFolderFirst(lua, file->neighbours);
  if (luaL_loadbuffer(lua, file->text.data(), file->text.size(), file->chunkName) != 0) return lua_error(lua);
  lua_pushstring(lua, file->name);  // as "require" does: older modules begin with "module(...)"
  lua_call(lua, 1, 1);
  if (TakeFunction(lua)) return 0;
  lua_getglobal(lua, kFunctionName);
  if (TakeFunction(lua)) return 0;
  lua_getglobal(lua, file->name);
  if (TakeFunction(lua)) return 0;
  return luaL_error(lua, "no function %s", kFunctionName);
}

/// Pushes the array of tables.
void PushHeaders(lua_State* lua, std::span<const Header> headers) {
  lua_newtable(lua);
  int elements = 0;
  for (size_t i = 0; i < headers.size(); ++i) {
    if (i == 0 || headers[i].element != headers[i - 1].element) {
      lua_newtable(lua);
      lua_pushvalue(lua, -1);
      lua_rawseti(lua, -3, ++elements);
    } else {
      lua_rawgeti(lua, -1, elements);
    }
    lua_pushlstring(lua, headers[i].name.data(), headers[i].name.size());
    lua_pushlstring(lua, headers[i].value.data(), headers[i].value.size());
    lua_rawset(lua, -3);
    lua_pop(lua, 1);
  }
}

bool Accepts(lua_State* lua, std::span<const Header> headers) {
  lua_getfield(lua, LUA_REGISTRYINDEX, kFunctionName);
  PushHeaders(lua, headers);
  lua_call(lua, 1, 1);
  if (!lua_isboolean(lua, -1)) luaL_error(lua, "no boolean result");
  const bool accepted = lua_toboolean(lua, -1) != 0;
  lua_pop(lua, 1);
  return accepted;
}

struct Judgement {
  std::span<const Header> headers;
  std::vector<size_t>& refused;  // has room for all of them
};

/// Argument: a Judgement.
int JudgeHeaders(lua_State* lua) {
  const auto* judgement = static_cast<const Judgement*>(lua_touserdata(lua, 1));
  if (Accepts(lua, judgement->headers)) return 0;
  for (size_t i = 0; i < judgement->headers.size(); ++i) {
    if (!Accepts(lua, judgement->headers.subspan(i, 1))) judgement->refused.push_back(i);
  }
  if (judgement->refused.empty()) judgement->refused.push_back(0);
  return 0;
}

// End mark.

bool RunProtected(lua_State* lua, lua_CFunction function, void* argument) {
  lua_sethook(lua, StopRunaway, LUA_MASKCOUNT, kMostInstructions);
  return lua_cpcall(lua, function, argument) == 0;
}

/// The text of the error that is on top of the stack.
const char* ErrorText(lua_State* lua) { return lua_type(lua, -1) == LUA_TSTRING ? lua_tostring(lua, -1) : "(no text)"; }

bool IsMissing(const std::string& path) {
  return access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

/// The module's file. Older modules lie under the bare path.
std::string FileOf(const std::string& modulePath) {
  std::string file = modulePath + ".lua";
  return IsMissing(file) ? modulePath : file;
}

/// One thread's module.
class HeaderValidatorModule {
 public:
  ModuleFindings Ask(const std::string& path, std::span<const Header> headers) {
    if (!lua_ || path != path_) {
      const std::string file = FileOf(path);
      if (IsMissing(file)) return {};
      if (!Load(path, file)) return {.failed = true, .refused = {}};
    }
    ModuleFindings findings;
    findings.refused.reserve(headers.size());
    Judgement judgement{headers, findings.refused};
    if (RunProtected(lua_.get(), JudgeHeaders, &judgement)) return findings;
    // The text of the error stays out of the log: it may well quote the value of a header.
    LogError("The HTTP header validator raised an error.");
    lua_.reset();
    return {.failed = true, .refused = {}};
  }

 private:
  bool Load(const std::string& path, const std::string& file) {
    path_ = path;
    lua_.reset(luaL_newstate());
    const std::string failure = TryToLoad(file);
    if (failure.empty()) return true;
    LogError("Failed to load the HTTP header validator %s: %s.", file.c_str(), failure.c_str());
    lua_.reset();
    return false;
  }

  /// The reason when that fails.
  std::string TryToLoad(const std::string& file) {
    if (!lua_) return "not enough memory";
    const std::optional<std::string> text = ReadWholeFile(file);
    if (!text) return std::strerror(errno);
    const std::string name = path_.substr(path_.rfind('/') + 1);
    const std::string chunkName = '@' + file;
    const std::string neighbours = file.substr(0, file.rfind('/') + 1) + "?.lua;";
    ModuleFile module{name.c_str(), chunkName.c_str(), neighbours.c_str(), *text};
    return RunProtected(lua_.get(), LoadFunction, &module) ? std::string() : ErrorText(lua_.get());
  }

  LuaState lua_;
  std::string path_;
};

}  // namespace

ModuleFindings AskHeaderModule(const std::string& modulePath, std::span<const Header> headers) {
  thread_local HeaderValidatorModule module;
  return module.Ask(modulePath, headers);
}

}  // namespace event_service
