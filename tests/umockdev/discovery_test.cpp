#include "core/transport.h"
#include "core/usb.h"
#include "usbfs_fixture.h"

using testing_support::scan;
using testing_support::UsbfsTest;

class UsbfsDiscovery : public UsbfsTest {};

TEST_F(UsbfsDiscovery, ScanFindsAdapter) {
  usbfs::plug(0x11111110, {1, {1}});
  EXPECT_TRUE(testing_support::scan_until_listed(0x11111110));
  EXPECT_EQ(varnel::usb_location_path(0x11111110), "1.1.1");
  EXPECT_TRUE(USB_OpenDevice(0x11111110));
  EXPECT_TRUE(USB_CloseDevice(0x11111110));
}
