# SPDX-License-Identifier: GPL-2.0-only
# Tests of PPP interfaces and tunnels, with the module linked in.
tarvelo_test(test_stack_tunnel tunnel_fixture.cpp tunnel_input_test.cpp tunnel_path_test.cpp
             tunnel_setup_test.cpp LIBS tarvelo_stack_fixture tarvelo_module_objects)
