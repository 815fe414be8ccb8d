/* A program outside the project, built against an installed libvarnel: it lists the adapters and
 * opens and closes each one. */
#include <stdio.h>
#include <varnel.h>

int main(void) {
  DevHandle handles[VARNEL_MAX_DEVICES];
  int count = USB_ScanDevice(handles);
  printf("libvarnel %s\n", VARNEL_GetVersion());
  for (int i = 0; i < count; ++i) {
    bool opened = USB_OpenDevice(handles[i]) && USB_CloseDevice(handles[i]);
    printf("0x%08X %s\n", (unsigned)handles[i], opened ? "opened" : "FAILED");
  }
  return count > 0 ? 0 : 1;
}
