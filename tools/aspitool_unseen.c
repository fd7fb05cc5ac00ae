/* Why the library sees fewer CD/DVD drives than the machine has. The
 * library itself stays silent; this looks at what the machine shows
 * (/sys/bus/scsi/devices, the nodes in /dev, the groups) the way a person
 * at the keyboard would, and says it in a sentence or two. */
#define _GNU_SOURCE
#include "tools/aspitool_commands.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define SCSI_DEVICES "/sys/bus/scsi/devices"
#define TYPE_CD_DVD 5
#define LIST_LENGTH 512

/* What the machine shows of its CD/DVD drives. */
typedef struct {
  int drives;
  char denied[LIST_LENGTH], busy[LIST_LENGTH], unreachable[LIST_LENGTH], withoutGeneric[LIST_LENGTH];
  int deniedCount, lastErrno;
  struct stat deniedNode; /* the last node refused for permission */
} Survey;

static void append(char* list, const char* name) {
  const size_t length = strlen(list);
  snprintf(list + length, LIST_LENGTH - length, "%s%s", length ? " " : "", name);
}

static int read_number(const char* path, long* value) {
  FILE* file = fopen(path, "r");
  if (file == NULL) return 0;
  const int read = fscanf(file, "%ld", value) == 1;
  fclose(file);
  return read;
}

/* The first entry of a directory such as .../scsi_generic; 0 when none. */
static int first_entry(const char* directory, char* name, size_t size) {
  DIR* dir = opendir(directory);
  if (dir == NULL) return 0;
  const struct dirent* entry;
  int found = 0;
  while (!found && (entry = readdir(dir)) != NULL)
    if (entry->d_name[0] != '.') found = snprintf(name, size, "%s", entry->d_name) > 0;
  closedir(dir);
  return found;
}

/* Tries the drive's generic node as the library opens it. */
static void try_generic_node(Survey* survey, const char* node) {
  const int fd = open(node, O_RDWR | O_NONBLOCK);
  if (fd >= 0) {
    close(fd);
    return;
  }
  if (errno == EACCES || errno == EPERM) {
    append(survey->denied, node);
    survey->deniedCount++;
    stat(node, &survey->deniedNode);
  } else if (errno == EBUSY) {
    append(survey->busy, node);
  } else {
    append(survey->unreachable, node);
    survey->lastErrno = errno;
  }
}

static void survey_drive(Survey* survey, const char* device) {
  char path[512], name[256], node[272];
  long type;
  snprintf(path, sizeof path, SCSI_DEVICES "/%s/type", device);
  if (!read_number(path, &type) || type != TYPE_CD_DVD) return;
  survey->drives++;
  snprintf(path, sizeof path, SCSI_DEVICES "/%s/scsi_generic", device);
  const int hasGeneric = first_entry(path, name, sizeof name);
  snprintf(node, sizeof node, "/dev/%s", name);
  if (hasGeneric && access(node, F_OK) == 0) {
    try_generic_node(survey, node);
    return;
  }
  snprintf(path, sizeof path, SCSI_DEVICES "/%s/block", device);
  if (first_entry(path, name, sizeof name)) snprintf(node, sizeof node, "/dev/%s", name);
  else snprintf(node, sizeof node, "%s", device); /* no block node either: its SCSI address */
  append(survey->withoutGeneric, node);
}

static void survey_machine(Survey* survey) {
  memset(survey, 0, sizeof *survey);
  DIR* dir = opendir(SCSI_DEVICES);
  if (dir == NULL) return;
  const struct dirent* entry;
  int host, channel, target, lun;
  while ((entry = readdir(dir)) != NULL)
    if (sscanf(entry->d_name, "%d:%d:%d:%d", &host, &channel, &target, &lun) == 4) survey_drive(survey, entry->d_name);
  closedir(dir);
}

static int has_group(gid_t group) {
  gid_t groups[256];
  const int count = getgroups(256, groups);
  for (int i = 0; i < count; ++i)
    if (groups[i] == group) return 1;
  return getegid() == group;
}

static int group_lists(const struct group* group, const char* user) {
  for (char* const* member = group->gr_mem; user != NULL && *member != NULL; ++member)
    if (strcmp(*member, user) == 0) return 1;
  return 0;
}

/* Whom the refused nodes are open to, and how this user gets there: the
 * group, and that a group counts only from the next login on. */
static void explain_permission(FILE* err, const Survey* survey) {
  const struct stat* node = &survey->deniedNode;
  const struct passwd* me = getpwuid(geteuid());
  const char* user = me != NULL ? me->pw_name : "USER";
  const struct group* group = getgrgid(node->st_gid);
  fprintf(err, "aspitool: you may not open %s, the generic node%s of %d CD/DVD drive%s (mode %04o", survey->denied,
          survey->deniedCount == 1 ? "" : "s", survey->deniedCount, survey->deniedCount == 1 ? "" : "s",
          (unsigned)(node->st_mode & 07777));
  if ((node->st_mode & 0060) != 0060 || group == NULL || node->st_gid == 0) {
    fprintf(err, "): only their owner may. On Debian udev gives them group cdrom; as root, check the rules "
                 "in /lib/udev/rules.d.\n");
  } else if (group_lists(group, user) && !has_group(node->st_gid)) {
    fprintf(err, ", group %s): you are in group %s, but this login began before you joined it: log out and "
                 "in again.\n", group->gr_name, group->gr_name);
  } else {
    fprintf(err, ", group %s), and you are not in group %s. As root, add yourself with\n"
                 "  adduser %s %s\nthen log out and in again: a new group counts from the next login on.\n",
            group->gr_name, group->gr_name, user, group->gr_name);
  }
}

int aspitool_explain_unseen(FILE* err, int seen) {
  Survey survey;
  survey_machine(&survey);
  if (survey.drives == 0) {
    fprintf(err, "aspitool: this machine shows no CD/DVD drive (none in " SCSI_DEVICES "): is one connected, and "
                 "its driver loaded?\n");
    return 0;
  }
  if (seen >= survey.drives) return survey.drives;
  if (survey.denied[0]) explain_permission(err, &survey);
  if (survey.busy[0])
    fprintf(err, "aspitool: %s %s held by another program, which opened it exclusively (a burner, a player): "
                 "end it and try again.\n", survey.busy, strchr(survey.busy, ' ') ? "are" : "is");
  if (survey.withoutGeneric[0])
    fprintf(err, "aspitool: %s %s no SCSI generic node /dev/sgN, the only way the library reaches a drive: "
                 "the sg module is not loaded or its nodes are missing. As root: modprobe sg (and add sg to "
                 "/etc/modules to keep it).\n", survey.withoutGeneric, strchr(survey.withoutGeneric, ' ') ? "have" : "has");
  if (survey.unreachable[0])
    fprintf(err, "aspitool: cannot open %s: %s\n", survey.unreachable, strerror(survey.lastErrno));
  return survey.drives;
}

int aspitool_scsi_node_held(int host, int target, int lun) {
  char path[128], name[256], node[272];
  snprintf(path, sizeof path, SCSI_DEVICES "/%d:0:%d:%d/scsi_generic", host, target, lun);
  if (!first_entry(path, name, sizeof name)) return 0;
  snprintf(node, sizeof node, "/dev/%s", name);
  const int fd = open(node, O_RDWR | O_NONBLOCK);
  if (fd >= 0) close(fd);
  return fd < 0 && errno == EBUSY;
}
