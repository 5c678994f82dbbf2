// A library that is not linked but loaded, to have its frames on the stack.
extern "C" void CallBack(void (*callback)())
{
    callback();
    asm volatile(""); // no tail call: the frame must stay
}
