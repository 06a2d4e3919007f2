#include "subscriptions/judgement/header_validator_module.h"

#include <unistd.h>
#include <lua.hpp>

#include <cerrno>
#include <memory>

#include "foundation/logging.h"

namespace event_service {
namespace {

constexpr const char* kFunctionName = "validateHttpHeaderByPattern";

// Seconds on the board. A module that loops without end must not take the listener with it.
constexpr int kMostInstructions = 50'000'000;

struct LuaStateDeleter {
  void operator()(lua_State* lua) const { lua_close(lua); }
};
using LuaState = std::unique_ptr<lua_State, LuaStateDeleter>;

// A Lua error leaves the functions between it and its handler without running destructors. What can raise one is in
// the functions from here to the end mark, which are called through lua_cpcall and hold nothing that needs destruction.

void StopRunaway(lua_State* lua, lua_Debug* /*activation*/) { luaL_error(lua, "too many instructions"); }

struct ModuleFile {
  const char* path;
  const char* neighbours;  // where the module finds what it requires: "<its folder>/?.lua;"
};

/// Puts the module's folder in front of the places that "require" searches.
void SearchFolderFirst(lua_State* lua, const char* neighbours) {
  lua_getglobal(lua, "package");
  lua_pushstring(lua, neighbours);
  lua_getfield(lua, -2, "path");
  lua_concat(lua, 2);
  lua_setfield(lua, -2, "path");
  lua_pop(lua, 1);
}

/// Argument: a ModuleFile. Leaves the module's function in the registry.
int LoadFunction(lua_State* lua) {
  const auto* file = static_cast<const ModuleFile*>(lua_touserdata(lua, 1));
  luaL_openlibs(lua);
  // Compiled code would not be interrupted, and needs memory that is both writable and executable.
  luaJIT_setmode(lua, 0, LUAJIT_MODE_ENGINE | LUAJIT_MODE_OFF);
  SearchFolderFirst(lua, file->neighbours);
  if (luaL_loadfile(lua, file->path) != 0) return lua_error(lua);
  lua_call(lua, 0, 1);
  // A module returns its table; older ones leave a global behind.
  if (lua_istable(lua, -1)) {
    lua_getfield(lua, -1, kFunctionName);
  } else {
    lua_getglobal(lua, kFunctionName);
  }
  if (!lua_isfunction(lua, -1)) return luaL_error(lua, "no function %s", kFunctionName);
  lua_setfield(lua, LUA_REGISTRYINDEX, kFunctionName);
  return 0;
}

struct ValidatorCall {
  std::span<const Header> headers;
  bool accepted = false;
};

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

/// Argument: a ValidatorCall.
int CallFunction(lua_State* lua) {
  auto* call = static_cast<ValidatorCall*>(lua_touserdata(lua, 1));
  lua_getfield(lua, LUA_REGISTRYINDEX, kFunctionName);
  PushHeaders(lua, call->headers);
  lua_call(lua, 1, 1);
  if (!lua_isboolean(lua, -1)) return luaL_error(lua, "no boolean result");
  call->accepted = lua_toboolean(lua, -1) != 0;
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

/// One thread's module.
class HeaderValidatorModule {
 public:
  ModuleVerdict Ask(const std::string& path, std::span<const Header> headers) {
    if (!lua_ || path != path_) {
      if (IsMissing(path)) return ModuleVerdict::kAccepted;
      if (!Load(path)) return ModuleVerdict::kFailed;
    }
    ValidatorCall call{.headers = headers};
    if (RunProtected(lua_.get(), CallFunction, &call)) {
      return call.accepted ? ModuleVerdict::kAccepted : ModuleVerdict::kRefused;
    }
    // The text of the error stays out of the log: it may well quote the value of a header.
    LogError("The HTTP header validator raised an error.");
    lua_.reset();
    return ModuleVerdict::kFailed;
  }

 private:
  bool Load(const std::string& path) {
    lua_.reset(luaL_newstate());
    path_ = path;
    const std::string neighbours = path.substr(0, path.rfind('/') + 1) + "?.lua;";
    ModuleFile file{path.c_str(), neighbours.c_str()};
    if (lua_ && RunProtected(lua_.get(), LoadFunction, &file)) return true;
    LogError("Failed to load the HTTP header validator %s: %s.", path.c_str(),
             lua_ ? ErrorText(lua_.get()) : "not enough memory");
    lua_.reset();
    return false;
  }

  LuaState lua_;
  std::string path_;
};

}  // namespace

ModuleVerdict AskHeaderModule(const std::string& modulePath, std::span<const Header> headers) {
  thread_local HeaderValidatorModule module;
  return module.Ask(modulePath + ".lua", headers);
}

}  // namespace event_service
