"""Forms of the page's commands, as a person fills them in."""
from selenium.webdriver.support.ui import Select


def form(name):
    return f"form[data-form='{name}']"


def field(name, member):
    return f"{form(name)} [name='{member}']"


def run(page, name, outcome="done", /, **given):
    """Fills the form in and sends it; what the page shows of its outcome."""
    before = len(page.all(".result"))
    for member, value in given.items():
        element = page.one(field(name, member))
        if element.tag_name == "select":
            Select(element).select_by_value(str(value))
        else:
            page.fill(field(name, member), str(value))
    page.press(f"{form(name)} button[type=submit]")
    page.until(lambda: len(page.all(".result")) > before, f"{name} ends", 60)
    result = page.all(".result")[0]
    assert result.get_attribute("data-outcome") == outcome, result.text
    return result.text
