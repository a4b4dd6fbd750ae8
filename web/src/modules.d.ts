// SPDX-License-Identifier: Apache-2.0
// Types of the used parts of libraries that have none, and of style sheets.

declare module "*.css";

declare module "d3-selection" {
  export interface Selection {
    datum(value: unknown): Selection;
    call(callee: unknown): Selection;
  }
  export function select(element: Element): Selection;
  export const selection: { prototype: object };
}

declare module "d3-flame-graph" {
  /** A node of the layout; `data` is the input. */
  export interface LayoutNode<T> {
    data: T;
    parent: LayoutNode<T> | null;
    children?: LayoutNode<T>[];
    depth: number;
  }
  export interface FlameGraph<T> {
    (selection: unknown): void;
    width(pixels: number): FlameGraph<T>;
    cellHeight(pixels: number): FlameGraph<T>;
    inverted(rootOnTop: boolean): FlameGraph<T>;
    resetHeightOnZoom(reset: boolean): FlameGraph<T>;
    setColorMapper(mapper: (node: LayoutNode<T>) => string): FlameGraph<T>;
    setLabelHandler(label: (node: LayoutNode<T>) => string): FlameGraph<T>;
    onHover(handler: (node: LayoutNode<T>) => void): FlameGraph<T>;
    update(data?: T): FlameGraph<T>;
  }
  export default function flamegraph<T>(): FlameGraph<T>;
}
