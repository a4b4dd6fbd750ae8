// SPDX-License-Identifier: Apache-2.0
// Call trees over groups. A node is a range of a list of groups; its children are parts of the range,
// which is sorted when they are first asked for. So only drawn nodes cost time. No DOM here.

import type { Data, Measure, Stacks } from "./data.js";

/** How a tree walks the stacks. */
export interface Walk {
  stacks: Stacks;
  measure: Measure;
  inward: boolean; // towards the allocation
  /** Only stacks with this function, from its outermost call, without it; -1 for whole stacks. */
  from: number;
}

export interface TreeNode {
  id: number; // a function; kRoot, or kRest for siblings that are gathered
  depth: number; // frames between the start of the walk and this node's children
  begin: number; // range of the list of groups
  end: number;
  width: number; // the larger one of before and after, summed over its groups
  before: number; // of its groups that are judged
  after: number;
  held: number; // now, also by groups that are not judged
  notJudged: number; // how many of its groups are not
  parent: TreeNode | null;
  children: TreeNode[] | null;
}

export const kRoot = -1;
export const kRest = -2;

export class CallTree {
  readonly root: TreeNode;
  private readonly groups: Uint32Array;
  private readonly origin: Int32Array; // by group: where its walk starts
  // By function: the child that is being summed up. Kept for reuse.
  private readonly slot: Int32Array;

  constructor(
    private readonly data: Data,
    readonly walk: Walk,
    groups: ArrayLike<number>,
  ) {
    this.origin = new Int32Array(data.count);
    this.slot = new Int32Array(data.functions.length).fill(-1);
    this.groups = this.select(groups);
    this.root = this.node(kRoot, 0, 0, this.groups.length, null);
    for (const group of this.groups) this.add(this.root, group);
  }

  groupsOf({ begin, end }: TreeNode): Uint32Array {
    return this.groups.subarray(begin, end);
  }

  /** The children of a node, largest first. */
  children(node: TreeNode): TreeNode[] {
    if (node.children) return node.children;
    const { stacks, inward } = this.walk;
    const range = this.groups.slice(node.begin, node.end);
    const childOf = new Int32Array(range.length).fill(-1);
    const found: TreeNode[] = [];
    const sizes: number[] = [];
    for (let i = 0; i < range.length; ++i) {
      const group = range[i]!;
      const at = this.origin[group]! + (inward ? -node.depth : node.depth);
      if (at < stacks.start[group]! || at >= stacks.start[group + 1]!) continue;
      const id = stacks.functions[at]!;
      let slot = this.slot[id]!;
      if (slot < 0) {
        slot = this.slot[id] = found.length;
        found.push(this.node(id, node.depth + 1, 0, 0, node));
        sizes.push(0);
      }
      childOf[i] = slot;
      ++sizes[slot]!;
      this.add(found[slot]!, group);
    }
    for (const { id } of found) this.slot[id] = -1;
    // Groups of the largest child first; those that end here last.
    const order = [...found.keys()].sort((a, b) => found[b]!.width - found[a]!.width);
    let begin = node.begin;
    const next = new Uint32Array(found.length + 1);
    for (const slot of order) {
      found[slot]!.begin = next[slot] = begin;
      begin += sizes[slot]!;
      found[slot]!.end = begin;
    }
    next[found.length] = begin;
    for (let i = 0; i < range.length; ++i) {
      const slot = childOf[i]! < 0 ? found.length : childOf[i]!;
      this.groups[next[slot]!++] = range[i]!;
    }
    node.children = order.map((slot) => found[slot]!);
    return node.children;
  }

  /** One node for the children from `first` on, which are too small to be drawn. */
  gather(parent: TreeNode, first: number): TreeNode {
    const small = this.children(parent).slice(first);
    const rest = this.node(kRest, parent.depth, small[0]!.begin, small.at(-1)!.end, parent);
    for (const child of small) {
      for (const sum of ["width", "before", "after", "held", "notJudged"] as const) rest[sum] += child[sum];
    }
    rest.children = small.map((child) => ({ ...child, parent: rest, children: null }));
    return rest;
  }

  /** The groups of the walk, with their origins. */
  private select(groups: ArrayLike<number>): Uint32Array {
    const { stacks, from, inward } = this.walk;
    const selected = new Uint32Array(groups.length);
    let count = 0;
    for (let i = 0; i < groups.length; ++i) {
      const group = groups[i]!;
      const [begin, end] = [stacks.start[group]!, stacks.start[group + 1]!];
      let at = end;
      if (from >= 0) {
        do --at;
        while (at >= begin && stacks.functions[at] !== from);
        if (at < begin) continue;
        this.origin[group] = inward ? at - 1 : at + 1;
      } else {
        this.origin[group] = inward ? end - 1 : begin;
      }
      selected[count++] = group;
    }
    return selected.subarray(0, count);
  }

  private node(id: number, depth: number, begin: number, end: number, parent: TreeNode | null): TreeNode {
    const sums = { width: 0, before: 0, after: 0, held: 0, notJudged: 0 };
    return { id, depth, begin, end, ...sums, parent, children: null };
  }

  private add(node: TreeNode, group: number): void {
    const { measure } = this.walk;
    const after = this.data.after(group, measure);
    const before = this.data.before(group, measure);
    node.width += before > after ? before : after;
    node.held += after;
    if (this.data.isDiff && this.data.status(group) === "unknown") {
      ++node.notJudged;
    } else {
      node.before += before;
      node.after += after;
    }
  }
}

/** A box of the drawing, in pixels. */
export interface Box {
  node: TreeNode;
  x: number;
  width: number;
  level: number;
}

/**
 * The boxes for `focus` and what is below it, for a drawing `pixels` wide: the callers of `focus`
 * over the whole width, then its descendants. Children narrower than `least` pixels are gathered.
 */
export function layOut(tree: CallTree, focus: TreeNode, pixels: number, least: number): Box[] {
  const boxes: Box[] = [];
  for (let node: TreeNode | null = focus.parent; node; node = node.parent) {
    boxes.unshift({ node, x: 0, width: pixels, level: 0 });
  }
  boxes.forEach((box, level) => (box.level = level));
  const scale = focus.width > 0 ? pixels / focus.width : 0;
  const pending: Box[] = [{ node: focus, x: 0, width: pixels, level: boxes.length }];
  for (let box = pending.pop(); box; box = pending.pop()) {
    boxes.push(box);
    const children = tree.children(box.node);
    let x = box.x;
    for (let at = 0; at < children.length; ++at) {
      let node = children[at]!;
      if (node.width <= 0) break;
      let width = node.width * scale;
      if (width < least) {
        // Sorted by width: all others are narrower. One alone keeps its name.
        const rest = children.length - at > 1 ? tree.gather(box.node, at) : node;
        width = rest.width * scale;
        if (width >= least / 2) boxes.push({ node: rest, x, width, level: box.level + 1 });
        break;
      }
      pending.push({ node, x, width, level: box.level + 1 });
      x += width;
    }
  }
  return boxes;
}
