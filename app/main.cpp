// Placeholder until the program entry lands; it lets the build complete.
int main()
{
    return 0;
}
