// The body of the layer-check programs: they are never run. What matters is
// that each links, with one library whole and only the layers below it.
int main()
{
    return 0;
}
