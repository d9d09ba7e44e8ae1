// Ends at once. Linked as vxsched is, it costs what loading a program does; linked statically, what
// any process does.

int main() {
    return 0;
}
