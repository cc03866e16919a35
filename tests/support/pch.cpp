// The precompiled header of the tests needs a program to belong to.
int main() {
    return 0;
}
