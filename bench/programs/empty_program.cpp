// Exits at once. Linked as vxsched is, it measures the cost of loading a program; linked
// statically, the cost of any process.

int main() {
    return 0;
}
