// Search over the sections of all pages, and the list of pages on a phone. Nothing is asked of a server.
const up = document.currentScript.dataset.up;
const input = document.getElementById("search");
const list = document.getElementById("found");
const menu = document.getElementById("menu");
const pages = document.getElementById("pages");
let chosen = -1;

menu.addEventListener("click", () => {
    menu.setAttribute("aria-expanded", String(pages.classList.toggle("open")));
});

// How well a section fits: every word must be there; in a title it weighs more.
function weight(section, words) {
    let sum = 0;
    for (const word of words) {
        const inTitle = section.title.toLowerCase().includes(word);
        const inPage = section.page.toLowerCase().includes(word);
        const at = section.text.toLowerCase().indexOf(word);
        if (!inTitle && !inPage && at < 0) {
            return 0;
        }
        sum += (inTitle ? 10 : 0) + (inPage ? 4 : 0) + (at >= 0 ? 1 : 0);
    }
    return sum;
}

function excerpt(section, words) {
    const at = Math.max(0, section.text.toLowerCase().indexOf(words[0]) - 40);
    return (at > 0 ? "... " : "") + section.text.slice(at, at + 120);
}

function show() {
    const words = input.value.toLowerCase().split(/\s+/).filter(Boolean);
    list.replaceChildren();
    chosen = -1;
    list.hidden = words.length === 0;
    if (list.hidden) {
        return;
    }
    const best = SECTIONS.map((section) => ({ section, weight: weight(section, words) }))
        .filter((entry) => entry.weight > 0)
        .sort((a, b) => b.weight - a.weight)
        .slice(0, 12);
    for (const { section } of best) {
        const link = document.createElement("a");
        link.href = up + section.url;
        link.textContent = section.title === section.page ? section.page : `${section.page}: ${section.title}`;
        const small = document.createElement("small");
        small.textContent = excerpt(section, words);
        link.append(small);
        const item = document.createElement("li");
        item.append(link);
        list.append(item);
    }
    if (best.length === 0) {
        const none = document.createElement("li");
        none.className = "none";
        none.textContent = "Nothing found";
        list.append(none);
    }
}

function choose(step) {
    const links = [...list.querySelectorAll("a")];
    if (links.length === 0) {
        return;
    }
    chosen = (chosen + step + links.length) % links.length;
    links.forEach((link, index) => link.classList.toggle("chosen", index === chosen));
    links[chosen].scrollIntoView({ block: "nearest" });
}

input.addEventListener("input", show);
input.addEventListener("keydown", (event) => {
    if (event.key === "ArrowDown" || event.key === "ArrowUp") {
        choose(event.key === "ArrowDown" ? 1 : -1);
        event.preventDefault();
    } else if (event.key === "Enter") {
        const links = list.querySelectorAll("a");
        if (links.length > 0) {
            location.href = links[Math.max(chosen, 0)].href;
            list.hidden = true;
        }
    } else if (event.key === "Escape") {
        input.value = "";
        show();
    }
});
document.addEventListener("keydown", (event) => {
    if (event.key === "/" && document.activeElement !== input) {
        input.focus();
        event.preventDefault();
    }
});
document.addEventListener("click", (event) => {
    if (!event.target.closest(".search")) {
        list.hidden = true;
    }
});
