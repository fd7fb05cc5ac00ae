/* JSON output: strings with their escapes, and the disc command's report,
 * taken from the lines that command writes for people so that both always
 * say the same. */
#define _GNU_SOURCE
#include "tools/aspitool_commands.h"

#include <stdlib.h>
#include <string.h>

void aspitool_json_string(FILE* out, const char* text, int emptyIsNull) {
  if (emptyIsNull && text[0] == 0) {
    fputs("null", out);
    return;
  }
  fputc('"', out);
  for (const unsigned char* c = (const unsigned char*)text; *c; ++c) {
    if (*c == '"' || *c == '\\') fprintf(out, "\\%c", *c);
    else if (*c < 0x20) fprintf(out, "\\u%04x", *c);
    else fputc(*c, out);
  }
  fputc('"', out);
}

/* One "  key  value" line of the report as JSON members. */
static void print_disc_member(FILE* out, const char* line) {
  char name[64], code[8], status[64];
  unsigned long long blocks;
  if (sscanf(line, "  profile %63[^(](0x%7[0-9A-Fa-f])", name, code) == 2) {
    name[strcspn(name, " ")] = 0; /* profile names have no blanks */
    fputs(",\n  \"profile\": ", out);
    aspitool_json_string(out, name, 0);
    fprintf(out, ",\n  \"profile_code\": %lu", strtoul(code, NULL, 16));
  } else if (sscanf(line, "  status %63[^\n]", status) == 1) {
    fputs(",\n  \"status\": ", out);
    aspitool_json_string(out, status, 0);
  } else if (sscanf(line, "  used %llu", &blocks) == 1) {
    fprintf(out, ",\n  \"used_blocks\": %llu", blocks);
  } else if (sscanf(line, "  free %llu", &blocks) == 1) {
    fprintf(out, ",\n  \"free_blocks\": %llu", blocks);
  }
}

int aspitool_run_disc_json(char** arguments, int count, FILE* out, FILE* err) {
  char* report = NULL;
  size_t size = 0;
  FILE* words = open_memstream(&report, &size);
  if (words == NULL) return ASPITOOL_FAILED;
  const int result = aspitool_run_disc(arguments, count, words, err);
  fclose(words);
  unsigned adapter, target, lun;
  if (result == ASPITOOL_OK && sscanf(report, "disc in %u:%u:%u", &adapter, &target, &lun) == 3) {
    fprintf(out, "{\n  \"address\": \"%u:%u:%u\"", adapter, target, lun);
    for (char* line = strtok(report, "\n"); line != NULL; line = strtok(NULL, "\n")) print_disc_member(out, line);
    fputs("\n}\n", out);
  }
  free(report);
  return result;
}
