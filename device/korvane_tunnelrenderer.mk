# SPDX-License-Identifier: Apache-2.0
# What a product adds to ship the tunnel renderer; inherited from its device makefile. The sepolicy
# folder beside this file is named in BoardConfig.mk, as Android reads board variables only there.
PRODUCT_PACKAGES += \
    libkorvane_tunnelrenderer
