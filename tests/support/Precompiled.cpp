// Nothing but a reason to compile the header that the test programs share.
int main() { return 0; }
