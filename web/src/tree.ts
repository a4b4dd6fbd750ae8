// SPDX-License-Identifier: Apache-2.0
// Call trees over groups, from either end of their stacks. A node computes its children on demand, so
// that only drawn nodes cost time. No DOM here.

import { type Measure, type Profile } from "./profile.js";

export interface TreeOptions {
  measure: Measure;
  fromAllocation: boolean; // the innermost frame is next to the root
}

export interface TreeNode {
  name: string;
  frame: number; // one of the function's frames, -1 for the root and for gathered nodes
  depth: number; // frames between the root and this node's callees
  groups: number[];
  width: number; // the larger one of before and after, summed over its groups
  before: number; // of its groups that are judged
  after: number;
  notJudged: number; // how many of its groups are not
  parent: TreeNode | null;
  children?: TreeNode[] | undefined;
}

export class CallTree {
  readonly root: TreeNode;

  constructor(
    private readonly profile: Profile,
    private readonly options: TreeOptions,
    groups: number[],
  ) {
    this.root = this.node("all", -1, 0, null);
    for (const group of groups) this.add(this.root, group);
  }

  /** The callees (from the allocation: callers) of a node, largest first. */
  children(node: TreeNode): TreeNode[] {
    if (node.children) return node.children;
    const { doc, functionOf } = this.profile;
    const found = new Map<number, TreeNode>();
    for (const index of node.groups) {
      const stack = doc.groups[index]!.stack;
      if (node.depth >= stack.length) continue;
      const at = this.options.fromAllocation ? node.depth : stack.length - 1 - node.depth;
      const id = functionOf[stack[at]!]!;
      let child = found.get(id);
      if (!child) {
        child = this.node(doc.frames[id]!.name, id, node.depth + 1, node);
        found.set(id, child);
      }
      this.add(child, index);
    }
    node.children = [...found.values()].sort((a, b) => b.width - a.width);
    return node.children;
  }

  /** One node for several siblings that are too small to be drawn. It can be zoomed. */
  gather(parent: TreeNode, small: TreeNode[]): TreeNode {
    const name = `${small.length.toLocaleString("en-US")} smaller`;
    const gathered = this.node(name, -1, parent.depth, parent);
    gathered.children = small.map((child) => ({ ...child, parent: gathered, children: undefined }));
    for (const child of small) {
      for (const group of child.groups) gathered.groups.push(group);
      for (const sum of ["width", "before", "after", "notJudged"] as const) {
        gathered[sum] += child[sum];
      }
    }
    return gathered;
  }

  private node(name: string, frame: number, depth: number, parent: TreeNode | null): TreeNode {
    const sums = { width: 0, before: 0, after: 0, notJudged: 0 };
    return { name, frame, depth, groups: [], ...sums, parent };
  }

  private add(node: TreeNode, index: number): void {
    const group = this.profile.doc.groups[index]!;
    const after = this.profile.after(group, this.options.measure);
    const before = this.profile.before(group, this.options.measure);
    node.groups.push(index);
    node.width += Math.max(before, after);
    if (group.status === "unknown") {
      ++node.notJudged;
    } else {
      node.before += before;
      node.after += after;
    }
  }
}

/** A node in the form that the flame graph library takes. */
export interface Drawn {
  name: string;
  value: number;
  node: TreeNode;
  children: Drawn[];
  fade?: boolean;
}

/**
 * `focus`, its callers, and the largest nodes below it: at most `budget`, none narrower than `least`
 * of its width. The other children of each node are gathered into one.
 */
export function cut(tree: CallTree, focus: TreeNode, budget: number, least: number): Drawn {
  const drawn = (node: TreeNode): Drawn => ({
    name: node.name,
    value: node.width,
    node,
    children: [],
  });
  const top = drawn(focus);
  const queue = new Largest();
  const expanded: Drawn[] = [];
  queue.push(top);
  for (let used = 0; used < budget; ++used) {
    const next = queue.pop();
    if (!next) break;
    expanded.push(next.of);
    next.into?.children.push(next.of);
    for (const child of tree.children(next.of.node)) {
      // Sorted by width.
      if (child.width <= 0 || child.width < focus.width * least) break;
      queue.push(drawn(child), next.of);
    }
  }
  for (const item of expanded) {
    const shown = new Set(item.children.map((child) => child.node));
    const rest = tree.children(item.node).filter((child) => child.width > 0 && !shown.has(child));
    if (rest.length === 1 && rest[0]!.width >= focus.width * least) {
      item.children.push(drawn(rest[0]!));
    } else if (rest.length > 0) {
      item.children.push(drawn(tree.gather(item.node, rest)));
    }
  }
  let root = top;
  for (let node = focus.parent; node; node = node.parent) {
    root = { name: node.name, value: focus.width, node, children: [root], fade: true };
  }
  return root;
}

interface Waiting {
  of: Drawn;
  into: Drawn | null;
  order: number;
}

/** A binary heap. Of nodes of one width the first one comes first, so that levels fill evenly. */
class Largest {
  private readonly heap: Waiting[] = [];
  private pushed = 0;

  push(of: Drawn, into: Drawn | null = null): void {
    const heap = this.heap;
    heap.push({ of, into, order: this.pushed++ });
    for (let at = heap.length - 1; at > 0; ) {
      const up = (at - 1) >> 1;
      if (!this.before(at, up)) break;
      this.swap(at, up);
      at = up;
    }
  }

  pop(): Waiting | undefined {
    const heap = this.heap;
    if (heap.length === 0) return undefined;
    this.swap(0, heap.length - 1);
    const result = heap.pop();
    for (let at = 0; ; ) {
      let best = at;
      for (const child of [2 * at + 1, 2 * at + 2]) {
        if (child < heap.length && this.before(child, best)) best = child;
      }
      if (best === at) return result;
      this.swap(at, best);
      at = best;
    }
  }

  private before(a: number, b: number): boolean {
    const [x, y] = [this.heap[a]!, this.heap[b]!];
    return x.of.value !== y.of.value ? x.of.value > y.of.value : x.order < y.order;
  }

  private swap(a: number, b: number): void {
    [this.heap[a], this.heap[b]] = [this.heap[b]!, this.heap[a]!];
  }
}
