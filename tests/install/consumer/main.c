/* A C program that uses the installed library the way a flashing tool does. */
#include <ravik.h>
#include <stdio.h>
#include <string.h>

static int32_t on_event(int32_t event, void *payload, void *context)
{
    (void)payload;
    ++*(int *)context;
    return event;
}

int main(void)
{
    int32_t major = 0, minor = 0;
    int events = 0;
    rk_get_version(&major, &minor);
    int32_t code = rk_flash_singleimage("/no/such/device", "x", 0, on_event, &events);
    const char *text = rk_describe_error(code);
    printf("%d.%d %d %s\n", major, minor, code & 0xFF, text);
    return !(major == 4 && minor == 0 && (code & 0xFF) == ERR_OPEN_DEVICE && events > 0 &&
             strcmp(text, "rk_flash_singleimage()->device_open()->error opening device") == 0);
}
