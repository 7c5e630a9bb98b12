/*
 * A plugin for QEMU that counts the instructions of the program that it emulates, in all threads.
 *
 * usage: qemu-arm -plugin file=instruction_count.so,counts=FILE PROGRAM
 *
 * When the program ends, FILE has their number. FILE is opened at the start, before a program may give up its rights.
 * Debian has the emulator without its header: what is used of it is declared here, as in every version.
 */
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

/* The lowest version of the interface that the emulator still takes; the build says which. */
extern int qemu_plugin_version;
int qemu_plugin_version = PLUGIN_VERSION;

typedef uint64_t qemu_plugin_id_t;
struct qemu_plugin_tb;

extern void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t plugin,
                                                  void (*translated)(qemu_plugin_id_t, struct qemu_plugin_tb*));
extern void qemu_plugin_register_vcpu_tb_exec_cb(struct qemu_plugin_tb* block, void (*executed)(unsigned int, void*),
                                                 int flags, void* data);
extern void qemu_plugin_register_atexit_cb(qemu_plugin_id_t plugin, void (*ended)(qemu_plugin_id_t, void*), void* data);
extern size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* block);

int qemu_plugin_install(qemu_plugin_id_t plugin, const void* machine, int count, char** arguments);

static _Atomic uint64_t instructions;
static FILE* counts;

static void executed(unsigned int processor, void* data)
{
    (void)processor;
    instructions += (uintptr_t)data;
}

static void translated(qemu_plugin_id_t plugin, struct qemu_plugin_tb* block)
{
    (void)plugin;
    qemu_plugin_register_vcpu_tb_exec_cb(block, executed, 0, (void*)qemu_plugin_tb_n_insns(block));
}

static void ended(qemu_plugin_id_t plugin, void* data)
{
    (void)plugin;
    (void)data;
    fprintf(counts, "totals: %llu\n", (unsigned long long)instructions);
    fclose(counts);
}

int qemu_plugin_install(qemu_plugin_id_t plugin, const void* machine, int count, char** arguments)
{
    static const char OPTION[] = "counts=";
    (void)machine;
    if (count != 1 || strncmp(arguments[0], OPTION, sizeof(OPTION) - 1) != 0) {
        return 1;
    }
    counts = fopen(arguments[0] + sizeof(OPTION) - 1, "w");
    if (counts == NULL) {
        return 1;
    }
    qemu_plugin_register_vcpu_tb_trans_cb(plugin, translated);
    qemu_plugin_register_atexit_cb(plugin, ended, NULL);
    return 0;
}
