// Built several times with frames of different sizes, and otherwise alike down to the addresses.

extern "C" __attribute__((visibility("default"))) void CallBack(void (*function)()) {
  volatile char frame[FRAME_BYTES];
  frame[0] = 1;
  function();
  frame[1] = 2;
}
