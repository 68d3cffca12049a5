/* A C host: finds the catalogue and runs a filter through FilterProcessing. */
#include <stdio.h>
#include <string.h>

#include "krfilter/krfilter.h"

int main(void) {
    int count = 0;
    for (const FILTERLIST* f = filterlist; strcmp(f->name, "#") != 0; ++f) ++count;
    if (count != 36) { printf("catalogue has %d filters\n", count); return 1; }

    unsigned short row0[3] = {1, 2, 3}, row1[3] = {4, 5, 6};
    unsigned short out0[3] = {0}, out1[3] = {0};
    unsigned short* in_rows[2] = {row0, row1};
    unsigned short* out_rows[2] = {out0, out1};
    char unknown[] = "no such filter";
    if (FilterProcessing(in_rows, 3, 2, 16, 4095, out_rows, unknown, NULL) != -3) return 1;
    if (FilterProcessing(in_rows, 3, 2, 16, 4095, out_rows, NULL, NULL) != -1) return 1;
    if (GetInformation(0, NULL) != 0) return 1;
    puts("c host ok");
    return 0;
}
