// A plugin of the emulator: prints on standard error how many instructions the program executed.
//
//     qemu-arm -plugin libcount_instructions.so PROGRAM
//
// A block of instructions counts whole when it is entered. Debian packages the emulator without the
// header of its plugin interface, so the few declarations are repeated here (interface version 1).
#include <inttypes.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

typedef uint64_t qemu_plugin_id_t;
typedef struct qemu_info_t qemu_info_t;
struct qemu_plugin_tb;
enum qemu_plugin_op { QEMU_PLUGIN_INLINE_ADD_U64 };
typedef void (*qemu_plugin_vcpu_tb_trans_cb_t)(qemu_plugin_id_t id, struct qemu_plugin_tb* tb);
typedef void (*qemu_plugin_udata_cb_t)(qemu_plugin_id_t id, void* userdata);

size_t qemu_plugin_tb_n_insns(const struct qemu_plugin_tb* tb);
void qemu_plugin_register_vcpu_tb_trans_cb(qemu_plugin_id_t id, qemu_plugin_vcpu_tb_trans_cb_t cb);
void qemu_plugin_register_vcpu_tb_exec_inline(struct qemu_plugin_tb* tb, enum qemu_plugin_op op,
                                              void* ptr, uint64_t imm);
void qemu_plugin_register_atexit_cb(qemu_plugin_id_t id, qemu_plugin_udata_cb_t cb, void* userdata);

#define EXPORT __attribute__((visibility("default")))

EXPORT int qemu_plugin_version = 1;

static uint64_t executed;

static void on_translation(qemu_plugin_id_t id, struct qemu_plugin_tb* tb) {
    (void)id;
    qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, &executed,
                                             qemu_plugin_tb_n_insns(tb));
}

static void on_exit_of_program(qemu_plugin_id_t id, void* unused) {
    (void)id;
    (void)unused;
    fprintf(stderr, "%" PRIu64 "\n", executed);
}

EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t* info, int argc,
                               char** argv) {
    (void)info;
    (void)argc;
    (void)argv;
    qemu_plugin_register_vcpu_tb_trans_cb(id, on_translation);
    qemu_plugin_register_atexit_cb(id, on_exit_of_program, NULL);
    return 0;
}
