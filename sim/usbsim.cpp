// placeholder: the libusb-1.0 API over virtual adapters
