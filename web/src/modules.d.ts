// SPDX-License-Identifier: Apache-2.0
// Style sheets are bundled beside the code.

declare module "*.css";
