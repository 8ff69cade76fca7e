// Temporary weak placeholders for handlers still being written (removed before release).
#include "quovix-cmd.hpp"
__attribute__((weak)) void quovix_cmd_opt_do_print_cell(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_print_ppt(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_print_ppt_full(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_print_sym(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_print_cube(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_gen_cif(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_gen_cif_reduced(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_gen_cif_p1(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_gen_cif_assign(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_gen_cif_assign_all(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_gen_cube(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_cal_charge(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_cal_bv(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_cal_bv_gui(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_cal_bv_type(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_cal_gii(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_cal_sym(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_cal_tot_en(QUOVIX_CMD_OPT *) {}
__attribute__((weak)) void quovix_cmd_opt_do_text_cal_bv(QUOVIX_CMD_OPT *) {}
