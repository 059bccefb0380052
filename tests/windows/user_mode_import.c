/* Fixture for the PE check's own test: a native-subsystem, relocatable image
 * that is wrong in exactly one way, an import from the user-mode kernel32.dll.
 * The check must reject it (tests/extra.cmake). */
__declspec(dllimport) void Sleep(unsigned long milliseconds);
__declspec(dllimport) unsigned long DbgPrint(const char* format, ...);

void start(void);
/* An absolute address, so that the image carries base relocations. */
void (*volatile g_entry)(void) = start;

void start(void)
{
    Sleep(0);
    DbgPrint("never loaded\n");
}
