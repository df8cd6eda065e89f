/* A C99 program built against an installed libryl_xml: emits a few records
 * and checks that its trace file holds them. The run directory is VUN_DIR. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zop_minimal.h"

/* 1 when the file at path holds text, 0 when not or unreadable. */
static int file_contains(const char* path, const char* text) {
    static char content[1 << 16];
    size_t length;
    FILE* file = fopen(path, "r");
    if (!file) return 0;
    length = fread(content, 1, sizeof content - 1, file);
    fclose(file);
    content[length] = '\0';
    return strstr(content, text) != NULL;
}

int main(void) {
    static const char* const expected[] = {
        "<field>domain_createA</field>", "<field>consumer_c</field>",
        "<field>task_begin</field>", "<field>relation</field>", "<field>task_end</field>"};
    const char* dir = getenv("VUN_DIR");
    char path[4096];
    size_t i;
    ___zop_domain* domain;
    ___zop_string_handle* name;
    __zop_id task = {1, 0, 0};
    __zop_id none = {0, 0, 0};

    if (!dir || !*dir) {
        fprintf(stderr, "consumer_c: set VUN_DIR to an existing directory\n");
        return 2;
    }
    domain = __zop_domain_createA("consumer_c");
    name = __zop_string_handle_createA("work");
    __zop_task_begin(domain, task, none, name);
    __zop_relation_add(domain, task, 3, none);
    __zop_task_end(domain);

    snprintf(path, sizeof path, "%s/_ryl.0", dir);
    for (i = 0; i < sizeof expected / sizeof expected[0]; ++i) {
        if (!file_contains(path, expected[i])) {
            fprintf(stderr, "consumer_c: %s lacks %s\n", path, expected[i]);
            return 1;
        }
    }
    printf("consumer_c: %s holds the records (%s)\n", path, __zop_api_version());
    return 0;
}
