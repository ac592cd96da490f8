// libsmbclient, loaded when a file share is first used. The library brings
// about a hundred others with it, whose loading would add some 20 ms to every
// start of the tool, file shares or not.
//
// SmbClient() gives its functions, each under the name it has in the library
// without the "smbc_" prefix. Throws Error 0x80004005 ("Cannot start the file
// share client: ...") when the library or one of its functions cannot be
// found; a later call tries again. Any thread may call.
#pragma once

#include <libsmbclient.h>

namespace pkgdlv {

#define PKGDLV_SMBC_FUNCTIONS(X)                                                                                  \
  X(new_context)                                                                                                  \
  X(init_context)                                                                                                 \
  X(free_context)                                                                                                 \
  X(setDebug)                                                                                                     \
  X(setOptionUserData)                                                                                            \
  X(getOptionUserData)                                                                                            \
  X(setFunctionAuthDataWithContext)                                                                               \
  X(setOptionUseKerberos)                                                                                         \
  X(setOptionUseCCache)                                                                                           \
  X(setOptionNoAutoAnonymousLogin)                                                                                \
  X(setOptionProtocols)                                                                                           \
  X(setTimeout)                                                                                                   \
  X(setPort)                                                                                                      \
  X(getFunctionPurgeCachedServers)                                                                                \
  X(getFunctionOpen)                                                                                              \
  X(getFunctionClose)                                                                                             \
  X(getFunctionRead)                                                                                              \
  X(getFunctionLseek)                                                                                             \
  X(getFunctionFstat)                                                                                             \
  X(getFunctionStat)                                                                                              \
  X(getFunctionOpendir)                                                                                           \
  X(getFunctionClosedir)                                                                                          \
  X(getFunctionReaddirPlus2)

struct SmbClientFunctions {
#define PKGDLV_SMBC_MEMBER(name) decltype(&::smbc_##name) name = nullptr;
  PKGDLV_SMBC_FUNCTIONS(PKGDLV_SMBC_MEMBER)
#undef PKGDLV_SMBC_MEMBER
};

const SmbClientFunctions& SmbClient();

}  // namespace pkgdlv
