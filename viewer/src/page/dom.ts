// SPDX-License-Identifier: MIT

type Child = Node | string | null | undefined | false;
type Properties = Readonly<Record<string, unknown>>;

/**
 * An element. Of the properties, `onclick` and the like are listeners, everything else is an attribute: true is an
 * empty one, false and undefined are none. Texts are never read as HTML.
 */
export function h<Tag extends keyof HTMLElementTagNameMap>(
    tag: Tag,
    properties: Properties = {},
    ...children: readonly Child[]
): HTMLElementTagNameMap[Tag] {
    const element = document.createElement(tag);
    for (const [name, value] of Object.entries(properties)) {
        if (name.startsWith('on')) element.addEventListener(name.slice(2), value as EventListener);
        else if (value === true) element.setAttribute(name, '');
        else if (value !== false && value !== undefined && value !== null) element.setAttribute(name, String(value));
    }
    element.append(
        ...children.filter((child): child is Node | string => child !== null && child !== undefined && child !== false),
    );
    return element;
}

/** These and no other children. Those that stay are not moved: to a browser a click that began on them goes on. */
export function setChildren(parent: Element, children: readonly Element[]): void {
    const kept = new Set(children);
    for (const child of [...parent.children]) if (!kept.has(child)) child.remove();
    children.forEach((child, i) => {
        if (parent.children[i] !== child) parent.insertBefore(child, parent.children[i] ?? null);
    });
}

export function button(text: string, onclick: () => void, properties: Properties = {}): HTMLButtonElement {
    return h('button', {type: 'button', onclick, ...properties}, text);
}

/** Says something to those who listen and do not see. */
export function announce(text: string): void {
    const place = document.getElementById('said');
    if (place && place.textContent !== text) place.textContent = text;
}

export function download(name: string, content: Blob): void {
    const address = URL.createObjectURL(content);
    const link = h('a', {href: address, download: name, hidden: true});
    document.body.append(link);
    link.click();
    link.remove();
    setTimeout(() => URL.revokeObjectURL(address), 60000);
}

/** The value of a custom property of the style. */
export function colour(name: string, of: Element = document.documentElement): string {
    return getComputedStyle(of).getPropertyValue(`--${name}`).trim();
}

/** What the build put into the page, compressed. */
export async function unpacked(id: string): Promise<Blob> {
    const text = atob(document.getElementById(id)!.textContent!);
    const bytes = new Uint8Array(text.length);
    for (let i = 0; i < text.length; ++i) bytes[i] = text.charCodeAt(i);
    return new Response(new Blob([bytes]).stream().pipeThrough(new DecompressionStream('deflate-raw'))).blob();
}
