// The program that launch_bench launches: it exits at once.

int main() {
    return 0;
}
