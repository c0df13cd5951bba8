/* The C program's calls, one function a family of the interface; see abi_test.c. */
#ifndef ABI_TEST_H
#define ABI_TEST_H

#ifdef __cplusplus
extern "C" {
#endif

int abi_utilities(void);
int abi_life_cycle(void);
int abi_bindings(void);
int abi_groups_and_filters(void);
int abi_rules(void);
int abi_access_points(void);
int abi_clients(void);

#ifdef __cplusplus
}
#endif

#endif
