/* A host built against the installed package: counts the catalogue and
 * runs "reverse" on a 1 x 2 image. */
#include <stdio.h>
#include <string.h>

#include <krfilter/krfilter.h>

int main(void) {
    int filters = 0;
    for (const FILTERLIST* f = filterlist; strcmp(f->name, "#") != 0; ++f) ++filters;
    unsigned short in[2] = {0, 1000}, out[2] = {7, 7};
    unsigned short* in_rows[1] = {in};
    unsigned short* out_rows[1] = {out};
    char name[] = "reverse";
    const int code = FilterProcessing(in_rows, 2, 1, 16, 4095, out_rows, name, NULL);
    printf("%d filters, reverse: %d -> %u %u\n", filters, code, out[0], out[1]);
    return filters == 36 && code == 0 && out[0] == 4095 && out[1] == 3095 ? 0 : 1;
}
