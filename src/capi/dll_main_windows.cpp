// zelvanor.dll's entry point (the DLL target alone compiles this file).
#include <windows.h>

#include "api/shared_instance.hpp"

// A host that ends without zelvanor_shutdown: Windows ends every thread but the exiting one
// before it tells the DLL, and the exit hook the SDK registered runs after this, under the loader
// lock, where joining the SDK's threads would wait forever. The instance is let go instead. (A
// FreeLibrary while the SDK runs is the host's to avoid: zelvanor_shutdown comes first.)
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_DETACH && reserved != nullptr) {
    zelvanor::detail::abandonSharedAtProcessEnd();
  }
  return TRUE;
}
