// Sets the event that its argument names, then waits to be ended. It leaves Ctrl-C to the system.

#include <windows.h>

int main(int argc, char* argv[]) {
    const HANDLE ready = argc == 2 ? ::OpenEventA(EVENT_MODIFY_STATE, FALSE, argv[1]) : nullptr;
    if (!ready || !::SetEvent(ready))
        return 1;
    ::Sleep(INFINITE);
}
